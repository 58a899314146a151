// Runs fc-host.exe as a user would, and the folders that such a test needs.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <windows.h>

#include "TestData.h"

/// The results of a run of the program.
struct HostRun {
    DWORD exitCode = 0;
    std::string out;
    std::string err;
};

/// Runs fc-host.exe; a run of more than three minutes is terminated and fails the test.
/// @param input   its standard input.
/// @param folder  where the program lies.
HostRun RunHost(const std::vector<std::wstring> &arguments, const std::string &input = {},
                const std::filesystem::path &folder = BinaryFolder());

/// The same for a script that prints "ready" and is then interrupted, as by Ctrl-C.
/// @param times      how often, with more than a second between.
/// @param readyFile  where the script writes "ready", unless it prints it.
HostRun InterruptHost(const std::vector<std::wstring> &arguments, unsigned times = 1, const std::string &input = {},
                      const std::wstring &readyFile = {});

/// The same for a host that is killed, and thus gets no chance to end anything itself.
void KillHost(const std::vector<std::wstring> &arguments, const std::wstring &readyFile);

/// A new folder that is removed with its contents.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder &) = delete;
    TemporaryFolder &operator=(const TemporaryFolder &) = delete;

    const std::filesystem::path &Path() const { return m_path; }
    /// Writes a file to the folder. @return its path.
    std::wstring Write(const std::wstring &name, const std::string &content) const;
    /// A path in the folder; it need not exist.
    std::wstring At(const std::wstring &name) const { return (m_path / name).wstring(); }

private:
    std::filesystem::path m_path;
};

/// The content of the file; fails the test without one.
std::string TextOfFile(const std::wstring &path);

/// What the host has printed, without the times of day with which its lines begin.
std::string WithoutTimes(const std::string &text);

/// Writes the text to a script and runs that.
HostRun RunScript(const std::string &script, std::vector<std::wstring> options = {});

/// The same for a script whose assertions are the test's: fails the test unless the script succeeds.
HostRun RunPassingScript(const std::string &script, std::vector<std::wstring> options = {});

/// Lua functions for scripts whose assertions are the test's:
/// - refused(message, f, ...) expects f to raise an error with that text in its message,
/// - write(path, text) writes a file.
extern const std::string kScriptHelpers;
