// What the driver installer offers to the rest of the module: the functions that Lua calls.
#pragma once

#include <wx/string.h>

#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "WindowsDriverInstaller/drivers/ServiceControl.h"
#include "vta_core.h"

/// Installs both drivers, or brings them to the version of the files. Returns when the work is done, when the agent is
/// about to end, or when there was no progress for an hour. Agent events report a failed installation.
/// May be called from any thread.
/// @param dom            must outlive the work, which may go on after the function has returned.
/// @param ndisDriverDir  folder of the filter driver's files.
/// @param wfpDriverDir   folder of the callout driver's files.
/// @return whether the work was started and finished, even if the installation failed.
bool InstallOrUpdateDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir);

/// Removes both drivers. Returns when that is done, or when one of its steps has taken longer than it may; its thread
/// is then killed. May be called from any thread.
/// @param dom            must outlive the thread, which is not killed if it hangs outside of its steps.
/// @param ndisDriverDir  folder of the filter driver's files, ending in a separator; not read by the removal.
/// @param wfpDriverDir   folder of the callout driver's files, ending in a separator.
/// @return true when the removal finished without a failure that counts, whether or not a reboot is pending.
bool UninstallDriver(VtaCore::CDom &dom, const wxString &ndisDriverDir, const wxString &wfpDriverDir);
