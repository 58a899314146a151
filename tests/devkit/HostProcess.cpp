#include "HostProcess.h"

#include <fstream>
#include <iterator>
#include <memory>

#include <gtest/gtest.h>

namespace {

constexpr DWORD kTimeoutMs = 180'000;

struct CloseTheHandle {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseTheHandle>;

/// A file that the program inherits. Files, not pipes: nobody has to wait for all who have inherited one.
Handle OpenInherited(const std::wstring &path, DWORD access) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    Handle file(CreateFileW(path.c_str(), access, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherited,
                            OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE)
        ADD_FAILURE() << "CreateFile: " << GetLastError();
    return file;
}

/// Starts the program in the current folder. @return null after a failure.
Handle Start(const std::filesystem::path &program, std::wstring commandLine, const TemporaryFolder &streams) {
    const Handle in = OpenInherited(streams.At(L"in"), GENERIC_READ);
    const Handle out = OpenInherited(streams.At(L"out"), GENERIC_WRITE);
    const Handle err = OpenInherited(streams.At(L"err"), GENERIC_WRITE);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.get();
    startup.hStdOutput = out.get();
    startup.hStdError = err.get();
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &started)) {
        ADD_FAILURE() << "CreateProcess: " << GetLastError();
        return nullptr;
    }
    CloseHandle(started.hThread);
    return Handle(started.hProcess);
}

/// Arguments in these tests hold no quotes and end in no backslash.
std::wstring CommandLine(const std::filesystem::path &program, const std::vector<std::wstring> &arguments) {
    std::wstring line = L"\"" + program.wstring() + L"\"";
    for (const std::wstring &argument : arguments)
        line += L" \"" + argument + L"\"";
    return line;
}

}  // namespace

HostRun RunHost(const std::vector<std::wstring> &arguments, const std::string &input,
                const std::filesystem::path &folder) {
    const TemporaryFolder streams;
    (void)streams.Write(L"in", input);
    const std::filesystem::path program = folder / L"fc-host.exe";
    const Handle process = Start(program, CommandLine(program, arguments), streams);
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

TemporaryFolder::TemporaryFolder() {
    static int count = 0;
    const std::wstring name =
        L"fc-host-test-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count);
    m_path = std::filesystem::temp_directory_path() / name;
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

HostRun RunScript(const std::string &script, std::vector<std::wstring> options) {
    const TemporaryFolder folder;
    options.push_back(folder.Write(L"script.lua", script));
    return RunHost(options);
}
