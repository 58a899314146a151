// Files and folders with a fixed path that lie elsewhere.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Lock.h"

namespace Simulator {

class FunctionSet;

/// Any thread.
class MappedPaths {
public:
    /// What is at or below `from` is looked for at or below `to`. Of several that fit the longest counts, of equal
    /// ones the last. Letters match in any case, slashes count as backslashes.
    void MapPath(const std::wstring &from, const std::filesystem::path &to);
    /// Where a path is mapped to, if it is.
    [[nodiscard]] std::optional<std::wstring> Mapped(const wchar_t *path) const;

private:
    struct Mapping {
        std::wstring from;
        std::wstring to;
    };
    mutable Lock m_lock;
    std::vector<Mapping> m_mappings;
};

/// Puts the mapped paths under fopen, _wfopen, fopen_s, _wfopen_s, CreateFileW, GetFileAttributesW,
/// GetFileAttributesExW, SetFileAttributesW, DeleteFileW, CreateDirectoryW, RemoveDirectoryW, FindFirstFileW, CopyFileW
/// and MoveFileExW.
/// @param paths  outlive the set.
void InstallMappedPaths(FunctionSet &functions, MappedPaths &paths);

}  // namespace Simulator
