#include "HealthCheckFiles.h"

#include <windows.h>
#include <wx/file.h>
#include <wx/filefn.h>
#include <wx/string.h>

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
