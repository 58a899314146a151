#include "FailureReport.h"

#include <cstdarg>

#include <windows.h>
#include <wx/file.h>
#include <wx/filefn.h>
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

void RemoveHealthCheckFiles() {
    wchar_t folder[MAX_PATH] = L"";
    const UINT length = GetSystemDirectoryW(folder, MAX_PATH);
    if (length == 0 || length > MAX_PATH)
        return;
    // compat 109: deletes two files that nobody reads or writes
    for (const char *name : {"\\qbimvtaHC.dat", "\\qbimwfpHC.dat"}) {
        const wxString path = wxString(folder) + name;
        if (wxFile::Exists(path))
            (void)wxRemoveFile(path);  // logs a failure itself
    }
}
