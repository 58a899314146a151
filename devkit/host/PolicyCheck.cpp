#include "PolicyCheck.h"

#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <system_error>

#include <windows.h>

#include "Files.h"
#include "Options.h"
#include "Resource.h"
#include "Text.h"

namespace {

/// A call of the module takes 100 ms, which nobody has to wait for then.
constexpr wchar_t kClock[] = L"--clock steps";
/// The files of the script, without their extension; the last one is run.
constexpr const wchar_t *kScripts[] = {L"answer", L"config",  L"effect", L"module", L"names",
                                       L"policy", L"scanner", L"texts",  L"check"};

struct CloseTheHandle {
    void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using Handle = std::unique_ptr<void, CloseTheHandle>;

/// A new folder that goes with all that is in it.
class WorkFolder {
public:
    WorkFolder() {
        static unsigned count = 0;
        m_path = std::filesystem::temp_directory_path() /
                 (L"fc-check-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++count));
    }
    ~WorkFolder() {
        std::error_code ignored;  // what can't be removed stays
        std::filesystem::remove_all(m_path, ignored);
    }
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    std::wstring Path() const { return m_path.wstring(); }
    std::wstring At(const std::wstring &name) const { return (m_path / name).wstring(); }

private:
    std::filesystem::path m_path;
};

std::string TextOf(const CheckRequest &request) {
    std::string text = request.kind == CheckedKind::Policy ? "policy" : "config";
    text += request.wantsEffects ? " effects\n" : " values\n";
    text += std::to_string(request.texts.size()) + "\n";
    for (const std::string &checked : request.texts)
        text += std::to_string(checked.size()) + "\n" + checked;
    return text;
}

bool WriteScripts(const WorkFolder &folder, std::string &error) {
    for (const std::wstring name : kScripts) {
        const std::string_view script = Resource((L"CHECK_" + name).c_str(), error);
        if (script.empty() || !WriteWholeFile(folder.At(name + L".lua"), script, error))
            return false;
    }
    return true;
}

std::wstring ProgramPath() {
    std::wstring path(32'768, L'\0');
    path.resize(GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

Handle OpenInherited(const std::wstring &path) {
    SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherited,
                              CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    return Handle(file != INVALID_HANDLE_VALUE ? file : nullptr);
}

/// Runs the scripts in a host of its own. @return its status; nothing if it can't be started.
std::optional<DWORD> RunScriptIn(const WorkFolder &folder) {
    const std::wstring program = ProgramPath();
    std::wstring line =
        L"\"" + program + L"\" --quiet " + kClock + L" \"" + folder.At(L"check.lua") + L"\" \"" + folder.Path() + L"\"";
    const Handle output = OpenInherited(folder.At(L"output"));
    STARTUPINFOW startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdOutput = output.get();
    startup.hStdError = output.get();
    PROCESS_INFORMATION started{};
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &started))
        return std::nullopt;
    ::CloseHandle(started.hThread);
    const Handle process(started.hProcess);
    (void)WaitForSingleObject(process.get(), INFINITE);
    DWORD status = 0;
    GetExitCodeProcess(process.get(), &status);
    return status;
}

JsonPtr ReadAnswer(const WorkFolder &folder, std::string &error) {
    const std::optional<std::string> content = ReadWholeFile(folder.At(L"answer.json"), error);
    return JsonPtr(content ? cJSON_ParseWithOpts(content->c_str(), nullptr, 1) : nullptr);
}

/// What the host of the script has said.
std::string OutputOf(const WorkFolder &folder) {
    std::string ignored;
    return ReadWholeFile(folder.At(L"output"), ignored).value_or(std::string());
}

std::string TextOf(const cJSON *object, const char *name) {
    const char *text = cJSON_GetStringValue(cJSON_GetObjectItem(object, name));
    return text != nullptr ? text : "";
}

int WholeOf(const cJSON *object, const char *name) {
    return cJSON_GetObjectItem(object, name)->valueint;
}

void PrintAnswer(const std::string &file, const cJSON *answer) {
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(answer, "problems")) {
        const std::string key = TextOf(item, "key");
        (void)std::printf("%s:%d:%d: %s%s\n", file.c_str(), WholeOf(item, "line"), WholeOf(item, "column"),
                          key.empty() ? "" : (key + ": ").c_str(), TextOf(item, "text").c_str());
    }
    const cJSON *taken = cJSON_GetObjectItem(answer, "taken");
    (void)std::printf("%s: the module takes %d %s\n", file.c_str(), cJSON_GetArraySize(taken),
                      cJSON_GetArraySize(taken) == 1 ? "value" : "values");
    cJSON_ArrayForEach(item, taken) {
        (void)std::printf("  line %d: %s = %.10g\n", WholeOf(item, "line"), TextOf(item, "key").c_str(),
                          cJSON_GetObjectItem(item, "value")->valuedouble);
    }
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(answer, "effect")) {
        (void)std::printf("%s\n", item->valuestring);
    }
}

}  // namespace

JsonPtr CheckTexts(const CheckRequest &request, std::string &error) {
    const WorkFolder folder;
    if (!WriteScripts(folder, error) || !WriteWholeFile(folder.At(L"request"), TextOf(request), error))
        return nullptr;
    const std::optional<DWORD> status = RunScriptIn(folder);
    JsonPtr answer = status == DWORD{0} ? ReadAnswer(folder, error) : nullptr;
    if (answer == nullptr)
        error = "the check could not be made: " + OutputOf(folder);
    return answer;
}

bool CheckFile(const Options &options, std::string &error) {
    const bool isPolicy = !options.policyFile.empty();
    const std::wstring &path = isPolicy ? options.policyFile : options.configFile;
    const std::optional<std::string> content = ReadWholeFile(path, error);
    if (!content)
        return false;
    const JsonPtr answers = CheckTexts({isPolicy ? CheckedKind::Policy : CheckedKind::Config, {*content}}, error);
    if (answers == nullptr)
        return false;
    const cJSON *answer = cJSON_GetArrayItem(answers.get(), 0);
    PrintAnswer(ToUtf8(path), answer);
    return cJSON_IsTrue(cJSON_GetObjectItem(answer, "ok")) != 0;
}
