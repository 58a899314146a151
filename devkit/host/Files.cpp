#include "Files.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <system_error>

#include <fcntl.h>
#include <io.h>
#include <wx/filename.h>
#include <wx/log.h>

#include "Text.h"

namespace {

struct CloseFile {
    void operator()(std::FILE *file) const { (void)std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

/// While a file has its temporary name, and is no longer deleted with its handle.
std::timed_mutex g_replacing;

std::string Failure(const char *what, const std::wstring &path, const std::string &reason) {
    return std::string("cannot ") + what + " " + ToUtf8(path) + ": " + reason;
}

std::string ReadFailure(const char *what, const std::wstring &path, int reason) {
    return Failure(what, path, std::generic_category().message(reason));
}

void MakeFolderOf(const std::wstring &path) {
    const wxLogNull quiet;  // creating the file reports the failure
    (void)wxFileName(wxString(path)).Mkdir(wxS_DIR_DEFAULT, wxPATH_MKDIR_FULL);
}

/// Why the existing file can't be replaced.
std::optional<std::string> WhyNotReplaceable(const std::wstring &path) {
    const DWORD attributes = GetFileAttributesW(path.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES)
        return std::nullopt;
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        return "it is a folder";
    if ((attributes & FILE_ATTRIBUTE_READONLY) != 0)
        return "it is read-only";
    return std::nullopt;
}

/// A unique name for each, since another program may write the same file.
std::wstring TemporaryName(const std::wstring &path) {
    static unsigned count = 0;
    return path + L"." + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count) + L".new";
}

bool DeleteWhenClosed(HANDLE file, bool wanted) {
    FILE_DISPOSITION_INFO disposition{};
    disposition.DeleteFile = wanted ? TRUE : FALSE;
    return SetFileInformationByHandle(file, FileDispositionInfo, &disposition, sizeof disposition) != 0;
}

}  // namespace

std::string WriteFailure(const std::wstring &path, DWORD reason) {
    std::string text = ToUtf8(wxString(wxSysErrorMsgStr(reason)));
    text.erase(text.find_last_not_of(" .\r\n") + 1);
    return Failure("write", path, text);
}

std::optional<NewFile> NewFile::Create(const std::wstring &path, std::string &error) {
    MakeFolderOf(path);
    if (const std::optional<std::string> reason = WhyNotReplaceable(path)) {
        error = Failure("write", path, *reason);
        return std::nullopt;
    }
    HANDLE there = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                               nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (there != INVALID_HANDLE_VALUE) {
        Handle device(there);
        if (GetFileType(there) != FILE_TYPE_DISK)
            return NewFile(path, {}, std::move(device));
    }
    const std::wstring temporary = TemporaryName(path);
    const HANDLE made = CreateFileW(temporary.c_str(), GENERIC_WRITE | DELETE, 0, nullptr, CREATE_ALWAYS,
                                    FILE_ATTRIBUTE_NORMAL, nullptr);
    if (made == INVALID_HANDLE_VALUE) {
        error = WriteFailure(path, GetLastError());
        return std::nullopt;
    }
    (void)DeleteWhenClosed(made, true);
    return NewFile(path, temporary, Handle(made));
}

bool NewFile::Write(std::string_view content) {
    constexpr std::size_t most = std::size_t{16} << 20U;
    while (!content.empty()) {
        const auto size = static_cast<DWORD>(std::min(content.size(), most));
        DWORD written = 0;
        if (!WriteFile(m_file.get(), content.data(), size, &written, nullptr))
            return false;
        if (written == 0) {
            SetLastError(ERROR_DISK_FULL);
            return false;
        }
        content.remove_prefix(written);
    }
    return true;
}

int NewFile::Descriptor() const {
    HANDLE copy = nullptr;
    const HANDLE self = GetCurrentProcess();
    if (!DuplicateHandle(self, m_file.get(), self, &copy, 0, FALSE, DUPLICATE_SAME_ACCESS))
        return -1;
    const int descriptor = _open_osfhandle(reinterpret_cast<std::intptr_t>(copy), _O_BINARY);
    if (descriptor < 0)
        CloseHandle(copy);
    return descriptor;
}

bool NewFile::Replace(std::string &error) {
    if (m_temporary.empty())
        return true;
    if (!FlushFileBuffers(m_file.get())) {
        error = WriteFailure(m_path, GetLastError());
        return false;
    }
    const std::lock_guard replacing(g_replacing);
    if (!DeleteWhenClosed(m_file.get(), false)) {
        error = WriteFailure(m_path, GetLastError());
        return false;
    }
    m_file.reset();
    if (MoveFileExW(m_temporary.c_str(), m_path.c_str(), MOVEFILE_REPLACE_EXISTING))
        return true;
    error = WriteFailure(m_path, GetLastError());
    (void)DeleteFileW(m_temporary.c_str());
    return false;
}

void StopReplacing() {
    constexpr std::chrono::seconds patience{1};
    (void)g_replacing.try_lock_for(patience);
}

bool WriteWholeFile(const std::wstring &path, std::string_view content, std::string &error) {
    std::optional<NewFile> file = NewFile::Create(path, error);
    if (!file)
        return false;
    if (!file->Write(content)) {
        error = WriteFailure(path, GetLastError());
        return false;
    }
    return file->Replace(error);
}

bool CanWriteFile(const std::wstring &path, std::string &error) {
    return NewFile::Create(path, error).has_value();
}

std::optional<std::string> ReadWholeFile(const std::wstring &path, std::string &error) {
    const File file(_wfopen(path.c_str(), L"rb"));
    if (file == nullptr) {
        error = ReadFailure("open", path, errno);
        return std::nullopt;
    }
    std::string content;
    char block[64 * 1024];
    for (std::size_t size = 0; (size = std::fread(block, 1, sizeof block, file.get())) != 0;)
        content.append(block, size);
    if (std::ferror(file.get()) != 0) {
        error = ReadFailure("read", path, errno);
        return std::nullopt;
    }
    return content;
}
