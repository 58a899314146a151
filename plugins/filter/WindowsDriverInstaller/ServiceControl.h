// Start, stop and restart of the two drivers, which are services: qbimvta filters at the NDIS level, qbimwfp is the WFP
// callout.
#pragma once

#include <windows.h>

// Each yields whether the driver is then in the state that was asked for, or on its way there.
// compat 127: a service that can't be opened is a success; a stop without a service manager, too, but not a start
// @param wait  wait for the state, for half a minute at most.
bool StartWFPCallout(bool wait);
bool StopWFPCallout(bool wait);
bool RestartWFPCallout(bool wait);
bool StartNDISDriver(bool wait);
bool StopNDISDriver(bool wait);
bool RestartNDISDriver(bool wait);

/// Whether the service can be opened.
bool IsWfpServiceInstalled();
/// Deletes the callout's service. @return false with a line in the log.
bool DeleteWfpService();
// Whether the service runs; false also where that can't be found out.
bool IsNdisServiceRunning();
bool IsWfpServiceRunning();

/// Waits for half a minute at most, or until the service makes no progress.
/// @param state  such as SERVICE_RUNNING.
/// @return false with the last error that says why.
bool WaitForServiceState(SC_HANDLE service, DWORD state);
