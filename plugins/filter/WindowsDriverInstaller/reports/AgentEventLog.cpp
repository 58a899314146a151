#include "AgentEventLog.h"

#include <cstdarg>

#include <wx/log.h>

void AgentEventLog_(VtaCore::CDom &dom, unsigned long error, int eventId, const wchar_t *format, ...) {
    // compat 110: an error of 0 stands for the last error
    if (error == 0)
        error = wxSysErrorCode();
    va_list arguments;
    va_start(arguments, format);
    const wxString text = wxString::FormatV(format, arguments);
    va_end(arguments);
    const wxString reason = wxSysErrorMsgStr(error);
    wxLogError("%s: %s (%#lx)", text, reason, error);
    dom.DoAgentEventWrite(eventId, L"%s|%s (%#lx)", static_cast<const wchar_t *>(text.wc_str()),
                          static_cast<const wchar_t *>(reason.wc_str()), error);
}

void AgentEventLogFailure(VtaCore::CDom &dom, unsigned long error, const wchar_t *call) {
    AgentEventLog_(dom, error, kSystemFailureEvent, L"%s", call);
}
