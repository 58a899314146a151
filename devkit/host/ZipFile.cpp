#include "ZipFile.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/zipstrm.h>

#include "Text.h"

namespace {

/// Reads the open entry to its end, or until there is more than room for it.
/// @param size  the claimed size, which may be wrong.
/// @return whether it is complete and has that size.
bool ReadEntry(wxZipInputStream &zip, wxFileOffset size, std::uint64_t room, std::string &content) {
    if (size < 0)
        return false;
    const std::uint64_t most = std::min(static_cast<std::uint64_t>(size), room);
    std::array<char, 16U << 10U> chunk{};
    while (zip.IsOk() && content.size() <= most)
        content.append(chunk.data(), zip.Read(chunk.data(), chunk.size()).LastRead());
    return zip.Eof() && content.size() == static_cast<std::uint64_t>(size);
}

}  // namespace

std::unique_ptr<ZipFile> ZipFile::Create(const std::wstring &path, std::string &error) {
    std::optional<NewFile> file = NewFile::Create(path, error);
    if (!file)
        return nullptr;
    const int descriptor = file->Descriptor();
    if (descriptor < 0) {
        error = "cannot write " + ToUtf8(path);
        return nullptr;
    }
    return std::unique_ptr<ZipFile>(new ZipFile(std::move(*file), descriptor));
}

bool ZipFile::Close(std::string &error) {
    const wxLogNull quiet;  // the caller reports the failure
    const bool closed = m_zip.Close();
    if (!m_file->Close() || !closed) {
        error = "the zip could not be written completely";
        return false;
    }
    return m_new.Replace(error);
}

std::optional<std::vector<ZippedFile>> ReadZipFile(const wxString &path, std::string &error, std::uint64_t mostBytes) {
    const wxLogNull quiet;  // the error reports the failure
    const std::optional<std::string> content = ReadWholeFile(path.ToStdWstring(), error);
    if (!content)
        return std::nullopt;
    error = "cannot read " + path.utf8_string();
    wxMemoryInputStream file(content->data(), content->size());
    wxZipInputStream zip(file);
    std::vector<ZippedFile> files;
    for (std::unique_ptr<wxZipEntry> entry(zip.GetNextEntry()); entry; entry.reset(zip.GetNextEntry())) {
        files.push_back({entry->GetName().utf8_string(), {}});
        std::string &unpacked = files.back().content;
        const bool isWhole = ReadEntry(zip, entry->GetSize(), mostBytes, unpacked);
        if (!isWhole || unpacked.size() > mostBytes) {
            error += ": its entry " + files.back().name +
                     (unpacked.size() > mostBytes ? " is larger than the host reads" : " is broken");
            return std::nullopt;
        }
        mostBytes -= unpacked.size();
    }
    if (zip.GetLastError() != wxSTREAM_EOF) {
        error += files.empty() ? ": it is no zip file" : ": it is cut off, or broken, behind " + files.back().name;
        return std::nullopt;
    }
    error.clear();
    return files;
}
