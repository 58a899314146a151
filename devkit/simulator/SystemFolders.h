// Temporary folders that stand for those of the system.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "Lock.h"

namespace Simulator {

class FunctionSet;

/// Makes the folders, and removes them with all that they hold at its end. Any thread.
class SystemFolders {
public:
    /// @throws std::filesystem::filesystem_error  if the real temporary folder does not let it.
    SystemFolders();
    ~SystemFolders();
    SystemFolders(const SystemFolders &) = delete;
    SystemFolders &operator=(const SystemFolders &) = delete;

    [[nodiscard]] const std::filesystem::path &Root() const { return m_root; }
    [[nodiscard]] std::filesystem::path Windows() const { return m_root / L"Windows"; }
    /// With a folder "drivers" in it.
    [[nodiscard]] std::filesystem::path System32() const { return Windows() / L"System32"; }
    [[nodiscard]] std::filesystem::path ProgramData() const { return m_root / L"ProgramData"; }
    [[nodiscard]] std::filesystem::path ProgramFiles() const { return m_root / L"Program Files"; }
    [[nodiscard]] std::filesystem::path Temp() const { return m_root / L"Temp"; }

    /// Lets files and folders with a fixed path lie elsewhere: what is at or below `from` is looked for at or below
    /// `to`. Of several that fit the longest counts. Letters match in any case, slashes count as backslashes.
    void MapPath(const std::wstring &from, const std::filesystem::path &to);
    /// Where a path is mapped to, if it is.
    [[nodiscard]] std::optional<std::wstring> Mapped(const wchar_t *path) const;

private:
    struct Mapping {
        std::wstring from;
        std::wstring to;
    };
    std::filesystem::path m_root;
    mutable Lock m_lock;
    std::vector<Mapping> m_mappings;
};

/// Puts the folders under GetSystemDirectoryW, GetWindowsDirectoryW, GetSystemWindowsDirectoryW, GetTempPathW and
/// SHGetFolderPathW (Windows, system, common application data, program files; others stay real).
void InstallFolders(FunctionSet &functions, SystemFolders &folders);

/// Puts the mapped paths under fopen, _wfopen, fopen_s, _wfopen_s, CreateFileW, GetFileAttributesW,
/// GetFileAttributesExW, SetFileAttributesW, DeleteFileW, CreateDirectoryW, RemoveDirectoryW and FindFirstFileW.
void InstallMappedPaths(FunctionSet &functions, SystemFolders &folders);

}  // namespace Simulator
