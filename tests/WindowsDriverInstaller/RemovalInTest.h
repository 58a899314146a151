// The removal on the calling thread, to test what a script cannot see.
#pragma once

#include <cstdint>

#include <wx/string.h>

#include "vta_core.h"

struct ProbeResult {
    bool result;
    std::uint32_t failedStep;
    bool rebootRequired;
};

/// Runs the removal compiled into the test, without a watcher.
ProbeResult RunRemovalInTest(VtaCore::CDom &dom, const wxString &wfpDriverDir);
