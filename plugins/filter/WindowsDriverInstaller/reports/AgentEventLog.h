// Reports failures of the operating system.
#pragma once

#include "vta_core.h"

/// Agent event of a failure of the operating system.
constexpr int kSystemFailureEvent = 3005;

/// Logs a failure of the system and sends it as an agent event.
/// @param error    the system's error; 0 for the calling thread's last one.
/// @param eventId  kSystemFailureEvent.
/// @param format   what failed; the arguments follow the rules of a wide printf.
void AgentEventLog_(VtaCore::CDom &dom, unsigned long error, int eventId, const wchar_t *format, ...);

/// The same for a call that failed. @param call  its name.
void AgentEventLogFailure(VtaCore::CDom &dom, unsigned long error, const wchar_t *call);
