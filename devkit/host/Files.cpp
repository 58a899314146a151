#include "Files.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <system_error>

#include <wx/filename.h>
#include <wx/log.h>

#include "Text.h"

namespace {

struct CloseFile {
    void operator()(std::FILE *file) const { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

std::string Failure(const char *what, const std::wstring &path, int reason) {
    return std::string("cannot ") + what + " " + ToUtf8(path) + ": " + std::generic_category().message(reason);
}

void MakeFolderOf(const std::wstring &path) {
    const wxLogNull quiet;  // opening the file tells of the failure
    (void)wxFileName(wxString(path)).Mkdir(wxS_DIR_DEFAULT, wxPATH_MKDIR_FULL);
}

}  // namespace

bool WriteWholeFile(const std::wstring &path, std::string_view content, std::string &error) {
    MakeFolderOf(path);
    File file(_wfopen(path.c_str(), L"wb"));
    if (file == nullptr) {
        error = Failure("write", path, errno);
        return false;
    }
    const bool written = std::fwrite(content.data(), 1, content.size(), file.get()) == content.size();
    if (std::fclose(file.release()) != 0 || !written) {
        error = Failure("write", path, errno);
        return false;
    }
    return true;
}

std::optional<std::string> ReadWholeFile(const std::wstring &path, std::string &error) {
    const File file(_wfopen(path.c_str(), L"rb"));
    if (file == nullptr) {
        error = Failure("open", path, errno);
        return std::nullopt;
    }
    std::string content;
    char block[64 * 1024];
    for (std::size_t size = 0; (size = std::fread(block, 1, sizeof block, file.get())) != 0;)
        content.append(block, size);
    if (std::ferror(file.get()) != 0) {
        error = Failure("read", path, errno);
        return std::nullopt;
    }
    return content;
}
