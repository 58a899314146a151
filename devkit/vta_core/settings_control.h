// What the host can ask about a file of settings before it makes a Dom on it.
#pragma once

#include "vta_core.h"

namespace VtaCore::Control {

/// Why the file holds no settings, so that a Dom would put it aside; empty if it does, or if there is no file. Any
/// thread.
VTA_CORE_API wxString SettingsFault(const wxString &storePath);

}  // namespace VtaCore::Control
