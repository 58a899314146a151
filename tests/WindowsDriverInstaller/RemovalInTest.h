// The removal on the calling thread, for what a script never hears of.
#pragma once

#include <cstdint>

#include <wx/string.h>

#include "vta_core.h"

struct ProbeResult {
    bool result;
    std::uint32_t failedStep;
    bool rebootRequired;
};

/// Runs the removal that is compiled into the test, without a watcher.
ProbeResult RunRemovalInTest(VtaCore::CDom &dom, const wxString &wfpDriverDir);
