#include "HostProcess.h"

#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

namespace {

constexpr DWORD kTimeoutMs = 60'000;

struct CloseTheHandle {
    void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseTheHandle>;

/// One end of a pipe is inherited by the child.
struct Pipe {
    Handle read;
    Handle write;

    explicit Pipe(bool childReads) {
        SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
        HANDLE readEnd = nullptr;
        HANDLE writeEnd = nullptr;
        if (!CreatePipe(&readEnd, &writeEnd, &inherited, 0))
            ADD_FAILURE() << "CreatePipe: " << GetLastError();
        read.reset(readEnd);
        write.reset(writeEnd);
        SetHandleInformation(childReads ? writeEnd : readEnd, HANDLE_FLAG_INHERIT, 0);
    }
};

void ReadAll(HANDLE pipe, std::string &text) {
    char block[4096];
    for (DWORD size = 0; ReadFile(pipe, block, sizeof block, &size, nullptr) && size != 0;)
        text.append(block, size);
}

/// Arguments in these tests hold no quotes and end in no backslash.
std::wstring CommandLine(const std::filesystem::path &program, const std::vector<std::wstring> &arguments) {
    std::wstring line = L"\"" + program.wstring() + L"\"";
    for (const std::wstring &argument : arguments)
        line += L" \"" + argument + L"\"";
    return line;
}

}  // namespace

std::filesystem::path BinaryFolder() {
    wchar_t path[MAX_PATH * 4] = L"";
    GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
    return std::filesystem::path(path).parent_path();
}

HostRun RunHost(const std::vector<std::wstring> &arguments, const std::string &input,
                const std::filesystem::path &folder) {
    HostRun run;
    Pipe in(true);
    Pipe out(false);
    Pipe err(false);
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = in.read.get();
    startup.hStdOutput = out.write.get();
    startup.hStdError = err.write.get();
    PROCESS_INFORMATION started{};
    const std::filesystem::path program = folder / L"fc-host.exe";
    std::wstring line = CommandLine(program, arguments);
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                        &started)) {
        ADD_FAILURE() << "CreateProcess: " << GetLastError();
        return run;
    }
    const Handle process(started.hProcess);
    const Handle thread(started.hThread);
    in.read.reset();
    out.write.reset();
    err.write.reset();

    std::thread readOut([&] { ReadAll(out.read.get(), run.out); });
    std::thread readErr([&] { ReadAll(err.read.get(), run.err); });
    DWORD written = 0;
    WriteFile(in.write.get(), input.data(), static_cast<DWORD>(input.size()), &written, nullptr);
    in.write.reset();
    if (WaitForSingleObject(process.get(), kTimeoutMs) != WAIT_OBJECT_0) {
        ADD_FAILURE() << "fc-host.exe took more than a minute";
        TerminateProcess(process.get(), ERROR_TIMEOUT);
    }
    readOut.join();
    readErr.join();
    GetExitCodeProcess(process.get(), &run.exitCode);
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

std::string ReadFile(const std::wstring &path) {
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    EXPECT_TRUE(file.is_open()) << "there is no file " << std::filesystem::path(path).string();
    return std::string(std::istreambuf_iterator<char>(file), {});
}

HostRun RunScript(const std::string &script, std::vector<std::wstring> options) {
    const TemporaryFolder folder;
    options.push_back(folder.Write(L"script.lua", script));
    return RunHost(options);
}
