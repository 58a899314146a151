// A driver thread's log. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <wx/log.h>

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

}  // namespace
