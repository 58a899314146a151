// fc-launch STATUS-FILE PROGRAM ARGS...: runs the program, and writes its exit status to the file: the number, or
// "killed" if it was ended from outside. Wine hands the status of a crashed program to its other processes in each
// case, but to Unix only in most.
#include <array>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include <windows.h>

#include "Launch.h"

namespace {

constexpr int kCannotLaunch = 2;

int Complain(const char *what) {
    (void)std::fprintf(stderr, "fc-launch: %s: error %lu\n", what, GetLastError());
    return kCannotLaunch;
}

/// What follows the first argument of a command line, as it was written.
const wchar_t *AfterFirst(const wchar_t *commandLine) {
    bool quoted = false;
    for (; *commandLine != L'\0' && (quoted || *commandLine != L' '); ++commandLine)
        if (*commandLine == L'"')
            quoted = !quoted;
    while (*commandLine == L' ')
        ++commandLine;
    return commandLine;
}

/// Ctrl-C is for the program.
BOOL WINAPI IgnoreControl(DWORD /*kind*/) {
    return TRUE;
}

/// @return an event whose handle the program finds in its environment; null on failure.
HANDLE MakeEndEvent() {
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    const HANDLE event = CreateEventW(&inherited, TRUE, FALSE, nullptr);
    std::array<wchar_t, 20> text{};
    (void)std::swprintf(text.data(), text.size(), L"%llx",
                        static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(event)));
    return event != nullptr && SetEnvironmentVariableW(kEndEventVariable, text.data()) != 0 ? event : nullptr;
}

/// Whoever ends the launcher ends the program; those that it has started live on.
bool TieToThis(HANDLE program) {
    const HANDLE job = CreateJobObjectW(nullptr, nullptr);  // closed by the end of this process
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits = {};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE | JOB_OBJECT_LIMIT_SILENT_BREAKAWAY_OK;
    return job != nullptr &&
           SetInformationJobObject(job, JobObjectExtendedLimitInformation, &limits, sizeof(limits)) != 0 &&
           AssignProcessToJobObject(job, program) != 0;
}

/// @return its exit status; nothing if it can't be run.
std::optional<DWORD> Run(std::wstring commandLine) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                       &startup, &process) == 0)
        return std::nullopt;
    DWORD status = 0;
    if (!TieToThis(process.hProcess) || ResumeThread(process.hThread) == static_cast<DWORD>(-1)) {
        (void)TerminateProcess(process.hProcess, kCannotLaunch);
        return std::nullopt;
    }
    if (WaitForSingleObject(process.hProcess, INFINITE) != WAIT_OBJECT_0 ||
        GetExitCodeProcess(process.hProcess, &status) == 0)
        return std::nullopt;
    return status;
}

bool WriteStatus(const wchar_t *path, const std::string &status) {
    std::FILE *const file = _wfopen(path, L"wb");
    if (file == nullptr)
        return false;
    const bool written = std::fputs(status.c_str(), file) >= 0;
    return std::fclose(file) == 0 && written;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    if (argc < 3) {
        (void)std::fputs("usage: fc-launch STATUS-FILE PROGRAM ARGS...\n", stderr);
        return kCannotLaunch;
    }
    (void)SetConsoleCtrlHandler(&IgnoreControl, TRUE);
    const HANDLE end = MakeEndEvent();
    if (end == nullptr)
        return Complain("no event for the end of the program");
    const std::optional<DWORD> status = Run(AfterFirst(AfterFirst(GetCommandLineW())));
    if (!status)
        return Complain("the program can't be run");
    const bool killed = *status == 0 && WaitForSingleObject(end, 0) != WAIT_OBJECT_0;
    if (!WriteStatus(argv[1], killed ? "killed" : std::to_string(*status)))
        return Complain("the status can't be written");
    return 0;
}
