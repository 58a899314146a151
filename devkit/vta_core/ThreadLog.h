// Reports the agent's threads to the host; see thread_log_control.h.
#pragma once

#include <wx/log.h>

#include "thread_log_control.h"

namespace VtaCore::ThreadLog {

/// The calling thread's body begins. Its log lines are reported from now on, and go where they went before.
void Begin(const char *name);
/// A record that only the calling thread's own target gets.
void TellLine(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info);
/// @param killed  false: called by the thread itself.
void End(DWORD thread, bool killed);

}  // namespace VtaCore::ThreadLog
