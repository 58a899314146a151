// Atomic file writes, with names in UTF-16.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <windows.h>

/// A new file under a temporary name beside the one that it will replace. Unless it replaces it, nothing is left, even
/// if the program is killed. Devices, such as NUL, are written to directly.
class NewFile {
public:
    /// Creates missing folders above it.
    /// @param path   the file to replace; not a folder, and not read-only.
    /// @param error  says which file and why, if nothing is returned.
    static std::optional<NewFile> Create(const std::wstring &path, std::string &error);

    /// @return false on failure, with GetLastError; the new file is lost then.
    [[nodiscard]] bool Write(std::string_view content);
    /// A C runtime descriptor of the same file, which its owner closes; -1 on failure.
    [[nodiscard]] int Descriptor() const;
    /// Replaces the file. Once, after all descriptors are closed.
    /// @param error  says which file and why, if the result is false.
    [[nodiscard]] bool Replace(std::string &error);

private:
    struct CloseTheHandle {
        void operator()(HANDLE handle) const { CloseHandle(handle); }
    };
    using Handle = std::unique_ptr<void, CloseTheHandle>;

    NewFile(std::wstring path, std::wstring temporary, Handle file)
        : m_path(std::move(path)), m_temporary(std::move(temporary)), m_file(std::move(file)) {}

    std::wstring m_path;
    std::wstring m_temporary;  ///< Empty for a device.
    Handle m_file;
};

/// For the end of the program: no file is replaced from now on. A replacement in progress gets a moment.
void StopReplacing();

/// Replaces the file once the new one is complete; creates missing folders above it.
/// @param error  says which file and why, if the result is false.
bool WriteWholeFile(const std::wstring &path, std::string_view content, std::string &error);

/// Whether WriteWholeFile could replace the file, which is not changed.
/// @param error  says which file and why, if the result is false.
bool CanWriteFile(const std::wstring &path, std::string &error);

/// Says which file can't be written and why. @param reason  as from GetLastError.
std::string WriteFailure(const std::wstring &path, DWORD reason);

/// @param error  says which file and why, if nothing is returned.
std::optional<std::string> ReadWholeFile(const std::wstring &path, std::string &error);
