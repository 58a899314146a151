// Temporary folders that replace those of the system.
#pragma once

#include <filesystem>

#include "MappedPaths.h"

namespace Simulator {

class FunctionSet;

/// Creates the folders, and removes them with their contents in the destructor; other paths can be mapped to them, or
/// anywhere else. Any thread.
class SystemFolders : public MappedPaths {
public:
    /// @throws std::filesystem::filesystem_error  if the real temporary folder does not allow it.
    SystemFolders();
    ~SystemFolders();
    SystemFolders(const SystemFolders &) = delete;
    SystemFolders &operator=(const SystemFolders &) = delete;

    [[nodiscard]] const std::filesystem::path &Root() const { return m_root; }
    [[nodiscard]] std::filesystem::path Windows() const { return m_root / L"Windows"; }
    /// With a folder "drivers" in it.
    [[nodiscard]] std::filesystem::path System32() const { return Windows() / L"System32"; }
    /// The system's folder of drivers' INF files.
    [[nodiscard]] std::filesystem::path Inf() const { return Windows() / L"inf"; }
    /// The system's folder of drivers' catalogues.
    [[nodiscard]] std::filesystem::path Catalogs() const {
        return System32() / L"CatRoot" / L"{F750E6C3-38EE-11D1-85E5-00C04FC295EE}";
    }
    [[nodiscard]] std::filesystem::path ProgramData() const { return m_root / L"ProgramData"; }
    [[nodiscard]] std::filesystem::path ProgramFiles() const { return m_root / L"Program Files"; }
    [[nodiscard]] std::filesystem::path Temp() const { return m_root / L"Temp"; }

private:
    std::filesystem::path m_root;
};

/// Makes GetSystemDirectoryW, GetWindowsDirectoryW, GetSystemWindowsDirectoryW, GetTempPathW and SHGetFolderPathW
/// (Windows, system, common application data, program files; others stay real) return the folders.
void InstallFolders(FunctionSet &functions, SystemFolders &folders);

}  // namespace Simulator
