// A script in a host process of its own: it shares neither machine nor module nor clock with this one.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

/// A path for a new folder, which is removed with all that is in it.
class WorkFolder {
public:
    WorkFolder();
    ~WorkFolder();
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    [[nodiscard]] std::wstring Path() const { return m_path.wstring(); }
    [[nodiscard]] std::wstring At(const std::wstring &name) const { return (m_path / name).wstring(); }

private:
    std::filesystem::path m_path;
};

struct SecondHostRun {
    DWORD status = 0;
    std::string output;  ///< What it has printed, with its errors.
};

/// Runs a script quietly on the stepped clock, and waits for its end. An interruption ends it, and it ends with this
/// process at the latest.
/// @param script     its file.
/// @param arguments  for the script.
/// @param error      says why, if nothing is returned.
std::optional<SecondHostRun> RunInSecondHost(const std::wstring &script, const std::vector<std::wstring> &arguments,
                                             std::string &error);
