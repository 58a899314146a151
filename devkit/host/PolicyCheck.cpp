#include "PolicyCheck.h"

#include <cstdio>
#include <optional>
#include <string>

#include "Files.h"
#include "Options.h"
#include "Resource.h"
#include "SecondHost.h"
#include "Text.h"

namespace {

/// The files of the script, without their extension; the last one is run.
constexpr const wchar_t *kScripts[] = {L"answer", L"config",  L"effect", L"module", L"names",
                                       L"policy", L"scanner", L"texts",  L"check"};

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

JsonPtr ReadAnswer(const WorkFolder &folder, std::string &error) {
    const std::optional<std::string> content = ReadWholeFile(folder.At(L"answer.json"), error);
    return JsonPtr(content ? cJSON_ParseWithOpts(content->c_str(), nullptr, 1) : nullptr);
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
    const std::optional<SecondHostRun> run = RunInSecondHost(folder.At(L"check.lua"), {folder.Path()}, error);
    if (!run)
        return nullptr;
    JsonPtr answer = run->status == 0 ? ReadAnswer(folder, error) : nullptr;
    if (answer == nullptr)
        error = "the check could not be made: " + run->output;
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
