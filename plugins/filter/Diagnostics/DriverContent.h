// The files of a diagnostic package that tell the drivers' state. A failure of one never stops the others.
#pragma once

#include "vta_core.h"
#include "vti.h"

namespace Filter::Diagnostics {

/// Adds all five, in this order. @return true, whatever became of them.
bool AddDriverContent(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);

// Each adds its file, and returns whether it succeeded.

/// "vta_stats.txt".
bool AddDriverStatistics(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);
/// "vta_variables.txt". One variable that can't be read costs the whole file.
bool AddDriverVariables(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);
/// "vta_conn_track.txt". Without a driver, connections or memory there is no file, which counts as done.
bool AddDriverConnTrack(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);
/// "vta_blacklist.txt".
bool AddDriverBlacklist(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);
/// "vta.tpf", the profile of the rules as the driver gives it. Added in every case, also empty.
bool AddDriverRuleStats(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip);

}  // namespace Filter::Diagnostics
