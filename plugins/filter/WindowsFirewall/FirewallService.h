// The service that the firewall lives in before Windows Vista. From Vista on nothing is done with it.
#pragma once

#include <windows.h>

namespace WindowsFirewall {

/// compat 143: the running system; only the two switches fill it, and until then the major version reads 0
extern OSVERSIONINFOEXW osVersionRecord;
void FillOsVersionRecord();
/// What the record says, so false until it is filled.
bool IsVistaOrLater();

// These log what they do and why they fail, and block the calling thread: for ten minutes at most where a service
// starts, for one where it stops.

/// @param running  receives whether the service runs; always true on Vista and later.
/// @param start    start it if it is stopped; otherwise it is only looked at.
/// @return false on failure.
bool StartFirewallService(bool *running, bool start);
/// Whether it runs, by the same function.
inline bool IsFirewallServiceRunning(bool *running) {
    return StartFirewallService(running, false);
}
/// Starts it if it is stopped, by the same function.
inline bool EnsureFirewallServiceRuns(bool *wasRunning) {
    return StartFirewallService(wasRunning, true);
}
/// What StartFirewallService does, whatever the system. Has nothing to do with the system's function of that name.
bool StartServiceW(bool *running, bool start);
/// Stops the service on old systems.
void StopFirewallService(bool *wasRunning);
/// @return true when the service is stopped or doesn't exist.
bool StopService(bool *wasRunning);

}  // namespace WindowsFirewall
