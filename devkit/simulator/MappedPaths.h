// Files and folders with a fixed path that are stored elsewhere.
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
    /// Maps what is at or below `from` to `to`. Of several matches the longest counts, of equal ones the last. Paths
    /// are case-insensitive, slashes count as backslashes.
    void MapPath(const std::wstring &from, const std::filesystem::path &to);
    /// The mapped path, if there is one.
    [[nodiscard]] std::optional<std::wstring> Mapped(const wchar_t *path) const;

private:
    struct Mapping {
        std::wstring from;
        std::wstring to;
    };
    mutable Lock m_lock;
    std::vector<Mapping> m_mappings;
};

/// Applies the mapped paths to fopen, _wfopen, fopen_s, _wfopen_s, CreateFileW, GetFileAttributesW,
/// GetFileAttributesExW, SetFileAttributesW, DeleteFileW, CreateDirectoryW, RemoveDirectoryW, FindFirstFileW, CopyFileW
/// and MoveFileExW.
/// @param paths  outlive the set.
void InstallMappedPaths(FunctionSet &functions, MappedPaths &paths);

}  // namespace Simulator
