// What the driver installer offers to the rest of the module: the functions that become Lua's.
#pragma once

#include <wx/string.h>

#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "WindowsDriverInstaller/drivers/ServiceControl.h"
#include "vta_core.h"

/// Installs both drivers, or brings them to the version of the files. Returns when the work is done, when the agent is
/// about to end, or when there was no progress for an hour. A failure of the installation is told by agent events.
/// May be called from any thread.
/// @param dom            must outlive the work, also where the function returns before its end.
/// @param ndisDriverDir  folder of the filter driver's files.
/// @param wfpDriverDir   folder of the callout driver's files.
/// @return whether the work could be started and came to an end, also if the installation failed.
bool InstallOrUpdateDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir);

/// Removes both drivers. Returns when that is done, or when one of its steps has taken longer than it may; its thread
/// is then killed. May be called from any thread.
/// @param dom            must outlive the thread, which goes on where it hangs outside of its steps.
/// @param ndisDriverDir  folder of the filter driver's files, with a separator behind it; not read by the removal.
/// @param wfpDriverDir   folder of the callout driver's files, with a separator behind it.
/// @return true when the removal ran to its end without a failure that counts, with or without a pending reboot.
bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir);
