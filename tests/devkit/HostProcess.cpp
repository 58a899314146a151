#include "HostProcess.h"

#include <cwchar>
#include <fstream>
#include <iterator>
#include <regex>
#include <utility>

#include <gtest/gtest.h>

#include "UniqueHandle.h"

using Simulator::UniqueHandle;

namespace {

constexpr DWORD kTimeoutMs = 180'000;

/// A file that the program inherits. Files rather than pipes: a pipe's reader would have to wait for every process that
/// inherited it.
/// @param disposition  see CreateFileW.
UniqueHandle OpenInherited(const std::wstring &path, DWORD access, DWORD disposition) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    UniqueHandle file(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  &inherited, disposition, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE)
        ADD_FAILURE() << "CreateFile: " << GetLastError();
    return file;
}

/// Starts the program in the current folder. @param flags  see CreateProcessW. @return null on failure.
UniqueHandle Start(const std::filesystem::path &program, std::wstring commandLine, const TemporaryFolder &streams,
                   DWORD flags = 0) {
    const UniqueHandle in = OpenInherited(streams.At(L"in"), GENERIC_READ, OPEN_ALWAYS);
    const UniqueHandle out = OpenInherited(streams.At(L"out"), GENERIC_WRITE, CREATE_NEW);
    const UniqueHandle err = OpenInherited(streams.At(L"err"), GENERIC_WRITE, CREATE_NEW);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.get();
    startup.hStdOutput = out.get();
    startup.hStdError = err.get();
    PROCESS_INFORMATION started{};
    const auto create = [&] {
        return CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, flags, nullptr, nullptr,
                              &startup, &started) != 0;
    };
    // Once in some thousand times Wine's new process ends before it has run anything, and reports this error.
    if (!create() && (GetLastError() != ERROR_INTERNAL_ERROR || !create())) {
        ADD_FAILURE() << "CreateProcess: " << GetLastError();
        return nullptr;
    }
    CloseHandle(started.hThread);
    return UniqueHandle(started.hProcess);
}

/// Arguments in these tests contain no quotes and end in no backslash.
std::wstring CommandLine(const std::filesystem::path &program, const std::vector<std::wstring> &arguments) {
    std::wstring line = L"\"" + program.wstring() + L"\"";
    for (const std::wstring &argument : arguments)
        line += L" \"" + argument + L"\"";
    return line;
}

/// Waits for the program to end, or terminates it.
HostRun Await(const UniqueHandle &process, const TemporaryFolder &streams) {
    HostRun run;
    if (process == nullptr)
        return run;
    if (WaitForSingleObject(process.get(), kTimeoutMs) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "fc-host.exe took more than three minutes";
        TerminateProcess(process.get(), ERROR_TIMEOUT);
        (void)WaitForSingleObject(process.get(), INFINITE);
    }
    GetExitCodeProcess(process.get(), &run.exitCode);
    run.out = TextOfFile(streams.At(L"out"));
    run.err = TextOfFile(streams.At(L"err"));
    return run;
}

/// Waits until the script has printed "ready". @return false if it ends before.
bool AwaitReady(HANDLE process, const TemporaryFolder &streams) {
    constexpr DWORD pollMs = 20;
    while (TextOfFile(streams.At(L"out")).find("ready") == std::string::npos) {
        if (WaitForSingleObject(process, pollMs) == WAIT_OBJECT_0) {
            ADD_FAILURE() << "the script has ended before it was ready";
            return false;
        }
    }
    return true;
}

/// Sends Ctrl-C to a process's console, from a second process of this program, which has to leave its own console for
/// that: at its start, if the variable is set to "PROCESS TIMES".
constexpr wchar_t kInterruptVariable[] = L"FC_TEST_INTERRUPT";
constexpr DWORD kBetweenMs = 1'200;

bool InterruptConsole(const wchar_t *request) {
    wchar_t *rest = nullptr;
    const DWORD process = std::wcstoul(request, &rest, 10);
    const unsigned long times = std::wcstoul(rest, nullptr, 10);
    (void)FreeConsole();
    if (!AttachConsole(process) || !SetConsoleCtrlHandler(nullptr, TRUE))
        return false;
    for (unsigned long time = 0; time < times; ++time) {
        if (time != 0)
            Sleep(kBetweenMs);
        if (!GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0))
            return false;
    }
    return true;
}

class Interrupter {
public:
    Interrupter() {
        if (const wchar_t *const request = _wgetenv(kInterruptVariable))
            ExitProcess(InterruptConsole(request) ? 0 : 1);
    }
};
const Interrupter interrupter;

void Interrupt(HANDLE process, unsigned times) {
    const TemporaryFolder streams;
    const std::wstring request = std::to_wstring(GetProcessId(process)) + L" " + std::to_wstring(times);
    wchar_t program[MAX_PATH * 4] = L"";
    GetModuleFileNameW(nullptr, program, static_cast<DWORD>(std::size(program)));
    (void)SetEnvironmentVariableW(kInterruptVariable, request.c_str());
    const UniqueHandle second = Start(program, CommandLine(program, {}), streams, DETACHED_PROCESS);
    (void)SetEnvironmentVariableW(kInterruptVariable, nullptr);
    DWORD status = 1;
    if (second != nullptr && WaitForSingleObject(second.get(), kTimeoutMs) == WAIT_OBJECT_0)
        GetExitCodeProcess(second.get(), &status);
    EXPECT_EQ(status, 0U) << "nobody was interrupted";
}

}  // namespace

HostRun RunHost(const std::vector<std::wstring> &arguments, const std::string &input,
                const std::filesystem::path &folder) {
    const TemporaryFolder streams;
    (void)streams.Write(L"in", input);
    const std::filesystem::path program = folder / L"fc-host.exe";
    return Await(Start(program, CommandLine(program, arguments), streams), streams);
}

HostRun InterruptHost(const std::vector<std::wstring> &arguments, unsigned times, const std::string &input) {
    const TemporaryFolder streams;
    (void)streams.Write(L"in", input);
    const std::filesystem::path program = BinaryFolder() / L"fc-host.exe";
    // In its own console, so that nobody else is interrupted.
    const UniqueHandle process = Start(program, CommandLine(program, arguments), streams, CREATE_NO_WINDOW);
    if (process != nullptr && AwaitReady(process.get(), streams))
        Interrupt(process.get(), times);
    return Await(process, streams);
}

TemporaryFolder::TemporaryFolder() {
    static int count = 0;
    const std::wstring name =
        L"fc-host-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
    m_path = std::filesystem::temp_directory_path() / name;
    std::filesystem::remove_all(m_path);  // of an older process with this number
    std::filesystem::create_directories(m_path);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;  // a file that is still open stays
    std::filesystem::remove_all(m_path, ignored);
}

std::wstring TemporaryFolder::Write(const std::wstring &name, const std::string &content) const {
    const std::filesystem::path path = m_path / name;
    std::ofstream(path, std::ios::binary) << content;
    return path.wstring();
}

std::string TextOfFile(const std::wstring &path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << "there is no file " << std::filesystem::path(path).string();
    return std::string(std::istreambuf_iterator<char>(file), {});
}

std::string WithoutTimes(const std::string &text) {
    static const std::regex time("(^|\n)[0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3}  ");
    return std::regex_replace(text, time, "$1");
}

HostRun RunScript(const std::string &script, std::vector<std::wstring> options) {
    const TemporaryFolder folder;
    options.push_back(folder.Write(L"script.lua", script));
    return RunHost(options);
}

HostRun RunPassingScript(const std::string &script, std::vector<std::wstring> options) {
    HostRun run = RunScript(script, std::move(options));
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    return run;
}

const std::string kScriptHelpers = R"(
    local function refused(expected, f, ...)
        local ok, message = pcall(f, ...)
        assert(not ok and message:find(expected, 1, true), tostring(message))
    end
    local function write(path, text)
        local file = assert(io.open(path, "wb"))
        file:write(text)
        file:close()
    end
)";
