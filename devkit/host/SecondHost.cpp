#include "SecondHost.h"

#include <cstddef>
#include <system_error>

#include "Files.h"
#include "UniqueHandle.h"

using Simulator::UniqueHandle;

namespace {

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

/// @param output  gets what the process prints.
/// @return its status; nothing if it can't be started, with the last error.
std::optional<DWORD> RunProcess(const std::wstring &program, std::wstring line, HANDLE output) {
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output;
    startup.hStdError = output;
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started))
        return std::nullopt;
    ::CloseHandle(started.hThread);
    const UniqueHandle process(started.hProcess);
    (void)WaitForSingleObject(process.get(), INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(process.get(), &status);
    return status;
}

}  // namespace

WorkFolder::WorkFolder() {
    static unsigned count = 0;
    m_path = std::filesystem::temp_directory_path() /
             (L"fc-second-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
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
    const std::wstring program = ProgramPath();
    // A call of the module takes 100 ms, which nobody has to wait for on the stepped clock.
    std::wstring line = Quoted(program) + L" --quiet --clock steps " + Quoted(script);
    for (const std::wstring &argument : arguments)
        line += L" " + Quoted(argument);
    const std::optional<DWORD> status = RunProcess(program, std::move(line), OpenInherited(outputFile).get());
    if (!status) {
        error = "a second host can't be started: " + std::system_category().message(static_cast<int>(GetLastError()));
        return std::nullopt;
    }
    const std::optional<std::string> output = ReadWholeFile(outputFile, error);
    if (!output)
        return std::nullopt;
    return SecondHostRun{*status, *output};
}
