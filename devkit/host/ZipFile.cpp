#include "ZipFile.h"

#include <wx/filename.h>

std::unique_ptr<ZipFile> ZipFile::Create(const wxString &path) {
    const wxLogNull quiet;  // the caller tells of the failure
    (void)wxFileName(path).Mkdir(wxS_DIR_DEFAULT, wxPATH_MKDIR_FULL);
    auto file = std::make_unique<wxFileOutputStream>(path);
    if (!file->IsOk())
        return nullptr;
    return std::unique_ptr<ZipFile>(new ZipFile(std::move(file)));
}

bool ZipFile::Close() {
    const bool closed = m_zip.Close();
    return m_file->Close() && closed;
}
