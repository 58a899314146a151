#include "ZipFile.h"

#include <wx/filename.h>
#include <wx/zipstrm.h>

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

std::optional<std::vector<ZippedFile>> ReadZipFile(const wxString &path) {
    const wxLogNull quiet;  // the caller tells of the failure
    wxFileInputStream file(path);
    if (!file.IsOk())
        return std::nullopt;
    wxZipInputStream zip(file);
    std::vector<ZippedFile> files;
    for (std::unique_ptr<wxZipEntry> entry(zip.GetNextEntry()); entry; entry.reset(zip.GetNextEntry())) {
        files.push_back(
            {entry->GetName().utf8_string(), std::string(static_cast<std::size_t>(entry->GetSize()), '\0')});
        if (!zip.ReadAll(files.back().content.data(), files.back().content.size()))
            return std::nullopt;
    }
    if (zip.GetLastError() != wxSTREAM_EOF)
        return std::nullopt;
    return files;
}
