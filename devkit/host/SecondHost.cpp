#include "SecondHost.h"

#include <cstddef>
#include <system_error>

#include "CallScope.h"
#include "Files.h"
#include "Interruption.h"
#include "devkit/launcher/ProcessJob.h"
#include "UniqueHandle.h"

using Simulator::UniqueHandle;

namespace {

/// For a second host that gets the same Ctrl-C to save its results; less than the first one has.
constexpr DWORD kSecondGraceMs = 1'000;

/// It need not exist.
std::filesystem::path TemporaryFolder() {
    std::wstring path(GetTempPathW(0, nullptr), L'\0');
    path.resize(GetTempPathW(static_cast<DWORD>(path.size()), path.data()));
    return path;
}

std::wstring ProgramPath() {
    std::wstring path(32'768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

/// As the C runtime takes a command line apart: backslashes count only in front of quotation marks.
std::wstring Quoted(const std::wstring &argument) {
    std::wstring quoted = L"\"";
    std::size_t backslashes = 0;
    for (const wchar_t c : argument) {
        if (c == L'"')
            quoted.append(backslashes + 1, L'\\');
        backslashes = c == L'\\' ? backslashes + 1 : 0;
        quoted += c;
    }
    return quoted.append(backslashes, L'\\') + L'"';
}

UniqueHandle OpenInherited(const std::wstring &path) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return UniqueHandle(file != INVALID_HANDLE_VALUE ? file : nullptr);
}

DWORD End(HANDLE process) {
    (void)TerminateProcess(process, kInterrupted);
    (void)WaitForSingleObject(process, INFINITE);
    return kInterrupted;
}

/// Waits for the end of the process, or for an interruption, after which it is ended. @return its status.
DWORD Await(HANDLE process) {
    const Simulator::InsideSimulator realTime;
    const HANDLE awaited[] = {process, InterruptionEvent()};
    const DWORD count = awaited[1] != nullptr ? 2 : 1;
    if (WaitForMultipleObjects(count, awaited, FALSE, INFINITE) != WAIT_OBJECT_0 &&
        WaitForSingleObject(process, kSecondGraceMs) != WAIT_OBJECT_0)
        return End(process);
    DWORD status = 0;
    GetExitCodeProcess(process, &status);
    return status;
}

/// The process ends with this one at the latest.
/// @param output  gets what the process prints.
/// @param error   says why, if nothing is returned.
/// @return its status.
std::optional<DWORD> RunProcess(const std::wstring &program, std::wstring line, HANDLE output, std::string &error) {
    const auto fail = [&error] {
        error = "a second host can't be started: " + std::system_category().message(static_cast<int>(GetLastError()));
        return std::nullopt;
    };
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_SUSPENDED, nullptr, nullptr,
                        &startup, &started))
        return fail();
    const UniqueHandle process(started.hProcess);
    const UniqueHandle thread(started.hThread);
    const UniqueHandle job(TieToJob(process.get()));
    if (job != nullptr && ResumeThread(thread.get()) != static_cast<DWORD>(-1))
        return Await(process.get());
    (void)fail();
    (void)End(process.get());
    return std::nullopt;
}

}  // namespace

WorkFolder::WorkFolder() {
    static unsigned count = 0;
    m_path =
        TemporaryFolder() / (L"fc-second-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
}

WorkFolder::~WorkFolder() {
    std::error_code ignored;  // what can't be removed stays
    std::filesystem::remove_all(m_path, ignored);
}

std::optional<SecondHostRun> RunInSecondHost(const std::wstring &script, const std::vector<std::wstring> &arguments,
                                             std::string &error) {
    const WorkFolder folder;
    const std::wstring outputFile = folder.At(L"output");
    if (!WriteWholeFile(outputFile, "", error))
        return std::nullopt;
    const UniqueHandle inherited = OpenInherited(outputFile);
    if (inherited == nullptr) {
        error = WriteFailure(outputFile, GetLastError());
        return std::nullopt;
    }
    const std::wstring program = ProgramPath();
    // A call of the module takes 100 ms, which nobody has to wait for on the stepped clock.
    std::wstring line = Quoted(program) + L" --quiet --clock steps -- " + Quoted(script);
    for (const std::wstring &argument : arguments)
        line += L" " + Quoted(argument);
    const std::optional<DWORD> status = RunProcess(program, std::move(line), inherited.get(), error);
    if (!status)
        return std::nullopt;
    const std::optional<std::string> output = ReadWholeFile(outputFile, error);
    if (!output)
        return std::nullopt;
    return SecondHostRun{*status, *output};
}
