// The service that the firewall lives in before Windows Vista. From Vista on nothing is done with it.
#pragma once

#include <windows.h>

namespace WindowsFirewall {

// These log what they do and why they fail, and block the calling thread: for ten minutes at most where a service
// starts, for one where it stops.

/// @param running  receives whether the service runs; always true on Vista and later.
/// @param start    start it if it is stopped; otherwise it is only looked at.
/// @return false on failure.
bool StartFirewallService(bool *running, bool start);
/// Whether it runs, by the same function.
bool IsFirewallServiceRunning(bool *running);
/// Starts it if it is stopped, by the same function.
bool EnsureFirewallServiceRuns(bool *wasRunning);
/// What StartFirewallService does, whatever the system. Has nothing to do with the system's function of that name.
bool StartServiceW(bool *running, bool start);
/// Stops the service on old systems.
void StopFirewallService(bool *wasRunning);
/// @return true when the service is stopped or doesn't exist.
bool StopService(bool *wasRunning);

}  // namespace WindowsFirewall
