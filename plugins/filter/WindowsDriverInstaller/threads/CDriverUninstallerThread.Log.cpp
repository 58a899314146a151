// A driver thread's log, and its reports of failures. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <wx/log.h>

#include "WindowsDriverInstaller/reports/AgentEventLog.h"

namespace {

void CDriverUninstallerThread::DbgPrint(const wchar_t *format, ...) {
    wxString indented;
    {
        const wxCriticalSectionLocker lock(stepLock);
        indented = wxString::Format("%*s", static_cast<int>(stepStack.size()), "");
    }
    indented += format;
    va_list arguments;
    va_start(arguments, format);
    DbgPrintV(indented.wc_str(), arguments);
    va_end(arguments);
}

void CDriverUninstallerThread::DbgPrintV(const wchar_t *format, va_list arguments) {
    wxLogMessage("%s", wxString::FormatV(format, arguments));
}

void CDriverUninstallerThread::ReportFailure(unsigned long error, const wchar_t *call) {
    AgentEventLogFailure(*dom, error, call);
}

void CDriverUninstallerThread::ReportFailure(HRESULT hr, const wchar_t *call) {
    ReportFailure(static_cast<unsigned long>(hr), call);
}

}  // namespace
