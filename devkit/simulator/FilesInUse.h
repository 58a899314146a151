// Files that can't be deleted or moved, and files scheduled for the next boot.
#pragma once

#include <cstddef>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <windows.h>

#include "Lock.h"

namespace Simulator {

class FunctionSet;

/// What MoveFileExW schedules for the next boot.
struct MoveAtBoot {
    std::wstring from;
    std::wstring to;  ///< Empty: to be deleted.

    bool operator==(const MoveAtBoot &) const = default;
};

/// Paths are the real ones, after mapping; they are case-insensitive, and slashes count as backslashes. Any thread.
class FilesInUse {
public:
    /// From now on the file can be neither deleted nor moved. @param error  the error of the attempt.
    void Hold(const std::filesystem::path &file, DWORD error = ERROR_SHARING_VIOLATION);
    void Release(const std::filesystem::path &file);
    /// ERROR_SUCCESS if the file can be deleted.
    [[nodiscard]] DWORD ErrorOf(const std::filesystem::path &file) const;

    void LeaveToBoot(MoveAtBoot move);
    /// In the order of the calls.
    [[nodiscard]] std::vector<MoveAtBoot> LeftToBoot() const;
    [[nodiscard]] std::size_t CountLeftToBoot() const;
    /// What a boot does: no file is in use, and what was left to it is done, as far as it can be done by then.
    void Boot();

private:
    mutable Lock m_lock;
    std::map<std::wstring, DWORD> m_held;  ///< By path in lower case.
    std::vector<MoveAtBoot> m_leftToBoot;
};

/// Simulates DeleteFileW and MoveFileExW with the files. With MOVEFILE_DELAY_UNTIL_REBOOT the latter only records the
/// request, whether the file exists or not; nothing reaches the real system.
/// @param files  outlive the set. Install it before the mapped paths.
void InstallFilesInUse(FunctionSet &functions, FilesInUse &files);

}  // namespace Simulator
