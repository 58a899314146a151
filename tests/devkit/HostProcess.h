// Runs fc-host.exe as a user would, and the folders that such a test needs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <windows.h>

#include "TestData.h"

/// What a run of the program left.
struct HostRun {
    DWORD exitCode = 0;
    std::string out;
    std::string err;
};

/// Runs fc-host.exe; a run of more than three minutes is ended and fails the test.
/// @param input   what it reads from its standard input.
/// @param folder  where the program lies.
HostRun RunHost(const std::vector<std::wstring> &arguments, const std::string &input = {},
                const std::filesystem::path &folder = BinaryFolder());

/// The same for a script that prints "ready" at some time and is interrupted then, as by Ctrl-C.
/// @param times  so often, with more than a second between them.
HostRun InterruptHost(const std::vector<std::wstring> &arguments, unsigned times = 1, const std::string &input = {});

/// A new folder that is removed with all that is in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    const std::filesystem::path &Path() const { return m_path; }
    /// Writes a file into the folder. @return its path.
    std::wstring Write(const std::wstring &name, const std::string &content) const;
    /// A path in the folder; nothing needs to be there.
    std::wstring At(const std::wstring &name) const { return (m_path / name).wstring(); }

private:
    std::filesystem::path m_path;
};

/// The whole file; fails the test where there is none.
std::string TextOfFile(const std::wstring &path);

/// What the host has printed, without the times of day with which its lines begin.
std::string WithoutTimes(const std::string &text);

/// Writes the text to a script and runs that.
HostRun RunScript(const std::string &script, std::vector<std::wstring> options = {});
