// fc-launch [--seconds N] STATUS-FILE PROGRAM ARGS...: runs the program, and writes its exit status to the file: the
// number, "killed" if it was ended from outside, or "late" if it was ended here after N seconds; until then "begun", so
// that an empty file means that the program never ran. Wine always passes the status of a crashed program to its other
// processes, but not always to Unix.
#include <array>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <optional>
#include <string>

#include <windows.h>

#include "Launch.h"
#include "ProcessJob.h"

namespace {

constexpr int kCannotLaunch = 2;

int Complain(const char *what) {
    (void)std::fprintf(stderr, "fc-launch: %s: error %lu\n", what, GetLastError());
    return kCannotLaunch;
}

/// What follows the first argument of a command line, unparsed.
const wchar_t *AfterFirst(const wchar_t *commandLine) {
    bool quoted = false;
    for (; *commandLine != L'\0' && (quoted || *commandLine != L' '); ++commandLine)
        if (*commandLine == L'"')
            quoted = !quoted;
    while (*commandLine == L' ')
        ++commandLine;
    return commandLine;
}

/// Ctrl-C is for the program. When the console is closed, the system ends this process as soon as this returns, and
/// with it the program, which may still have to save its results.
BOOL WINAPI IgnoreControl(DWORD kind) {
    if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT)
        Sleep(INFINITE);
    return TRUE;
}

/// @return an event whose handle is in the program's environment; null on failure.
HANDLE MakeEndEvent() {
    SECURITY_ATTRIBUTES inherited = {sizeof(inherited), nullptr, TRUE};
    const HANDLE event = CreateEventW(&inherited, TRUE, FALSE, nullptr);
    std::array<wchar_t, 20> text{};
    (void)std::swprintf(text.data(), text.size(), L"%llx",
                        static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(event)));
    return event != nullptr && SetEnvironmentVariableW(kEndEventVariable, text.data()) != 0 ? event : nullptr;
}

/// The program ends with the launcher; programs that it has started live on.
bool TieToThis(HANDLE program) {
    return TieToJob(program) != nullptr;  // closed by the end of this process
}

struct Ending {
    DWORD status = 0;
    bool isLate = false;
};

bool WriteStatus(const wchar_t *path, const std::string &status) {
    std::FILE *const file = _wfopen(path, L"wb");
    if (file == nullptr)
        return false;
    const bool written = std::fputs(status.c_str(), file) >= 0;
    return std::fclose(file) == 0 && written;
}

/// @return how it ended; empty if it can't be run.
std::optional<Ending> Run(std::wstring commandLine, DWORD limitMs, const wchar_t *statusPath) {
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process = {};
    if (CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                       &startup, &process) == 0)
        return std::nullopt;
    Ending ending;
    if (!TieToThis(process.hProcess) || !WriteStatus(statusPath, "begun") ||
        ResumeThread(process.hThread) == static_cast<DWORD>(-1)) {
        (void)TerminateProcess(process.hProcess, kCannotLaunch);
        return std::nullopt;
    }
    ending.isLate = WaitForSingleObject(process.hProcess, limitMs) == WAIT_TIMEOUT;
    if (ending.isLate)
        (void)TerminateProcess(process.hProcess, kCannotLaunch);
    if (WaitForSingleObject(process.hProcess, INFINITE) != WAIT_OBJECT_0 ||
        GetExitCodeProcess(process.hProcess, &ending.status) == 0)
        return std::nullopt;
    return ending;
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    const bool isLimited = argc > 2 && std::wcscmp(argv[1], L"--seconds") == 0;
    const int first = isLimited ? 3 : 1;
    if (argc < first + 2) {
        (void)std::fputs("usage: fc-launch [--seconds N] STATUS-FILE PROGRAM ARGS...\n", stderr);
        return kCannotLaunch;
    }
    (void)SetConsoleCtrlHandler(&IgnoreControl, TRUE);
    const HANDLE end = MakeEndEvent();
    if (end == nullptr)
        return Complain("no event for the end of the program");
    const wchar_t *commandLine = GetCommandLineW();
    for (int i = 0; i <= first; ++i)
        commandLine = AfterFirst(commandLine);
    const DWORD limitMs = isLimited ? static_cast<DWORD>(std::wcstoul(argv[2], nullptr, 10)) * 1000 : INFINITE;
    const std::optional<Ending> ending = Run(commandLine, limitMs, argv[first]);
    if (!ending)
        return Complain("the program can't be run");
    const bool killed = ending->status == 0 && WaitForSingleObject(end, 0) != WAIT_OBJECT_0;
    const std::string status = ending->isLate ? "late" : killed ? "killed" : std::to_string(ending->status);
    if (!WriteStatus(argv[first], status))
        return Complain("the status can't be written");
    return 0;
}
