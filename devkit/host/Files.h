// Whole files, by their names in UTF-16.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <windows.h>

/// A new file under another name beside the one that it is to replace. Unless it is put there, nothing of it is left,
/// even if the program is ended from outside. What is no file on a disk, such as NUL, is written to as it is.
class NewFile {
public:
    /// Missing folders above it are made.
    /// @param path   of the file to replace; no folder, and not read-only.
    /// @param error  says which file and why, when nothing is returned.
    static std::optional<NewFile> Create(const std::wstring &path, std::string &error);

    /// @return false on failure, with GetLastError; the file is lost then.
    [[nodiscard]] bool Write(std::string_view content);
    /// A descriptor of the C runtime for the same file, which its owner closes; -1 on failure.
    [[nodiscard]] int Descriptor() const;
    /// Replaces the file. Once, when all descriptors are closed.
    /// @param error  says which file and why, when the result is false.
    [[nodiscard]] bool Replace(std::string &error);

private:
    struct CloseTheHandle {
        void operator()(HANDLE handle) const { CloseHandle(handle); }
    };
    using Handle = std::unique_ptr<void, CloseTheHandle>;

    NewFile(std::wstring path, std::wstring temporary, Handle file)
        : m_path(std::move(path)), m_temporary(std::move(temporary)), m_file(std::move(file)) {}

    std::wstring m_path;
    std::wstring m_temporary;  ///< Empty for what is written to as it is.
    Handle m_file;
};

/// For the end of the program: from now on no file comes into its place. One that is on its way there has a moment.
void StopReplacing();

/// Replaces the file when all of the new one is written; missing folders above it are made.
/// @param error  says which file and why, when the result is false.
bool WriteWholeFile(const std::wstring &path, std::string_view content, std::string &error);

/// Whether WriteWholeFile could replace the file, which stays as it is.
/// @param error  says which file and why, when the result is false.
bool CanWriteFile(const std::wstring &path, std::string &error);

/// Says which file can't be written and why.
/// @param reason  as GetLastError tells it.
std::string WriteFailure(const std::wstring &path, DWORD reason);

/// @param error  says which file and why, when nothing is returned.
std::optional<std::string> ReadWholeFile(const std::wstring &path, std::string &error);
