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

std::string NumberText(double number) {
    char text[40] = "";
    (void)std::snprintf(text, sizeof text, "%.10g", number);
    return text;
}

std::string ProblemLine(const std::string &file, const cJSON *problem) {
    const std::string key = TextOf(problem, "key");
    return file + ":" + std::to_string(WholeOf(problem, "line")) + ":" + std::to_string(WholeOf(problem, "column")) +
           ": " + (key.empty() ? "" : key + ": ") + TextOf(problem, "text") + "\n";
}

std::string TakenLine(const cJSON *taken) {
    return "  line " + std::to_string(WholeOf(taken, "line")) + ": " + TextOf(taken, "key") + " = " +
           NumberText(cJSON_GetObjectItem(taken, "value")->valuedouble) + "\n";
}

bool IsSet(const cJSON *answer, const char *flag) {
    return cJSON_IsTrue(cJSON_GetObjectItem(answer, flag)) != 0;
}

}  // namespace

std::string AnswerText(const std::string &file, const cJSON *answer) {
    std::string text;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(answer, "problems")) {
        text += ProblemLine(file, item);
    }
    const cJSON *taken = cJSON_GetObjectItem(answer, "taken");
    const int count = cJSON_GetArraySize(taken);
    text += file + ": the module takes " + std::to_string(count) + (count == 1 ? " value\n" : " values\n");
    cJSON_ArrayForEach(item, taken) {
        text += TakenLine(item);
    }
    cJSON_ArrayForEach(item, cJSON_GetObjectItem(answer, "effect")) {
        text += std::string(item->valuestring) + "\n";
    }
    if (IsSet(answer, "unexplained"))
        text += file + ": the module does something else than this check expects, which is a mistake of the check\n";
    return text;
}

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
    (void)std::fputs(AnswerText(ToUtf8(path), answer).c_str(), stdout);
    return IsSet(answer, "ok") && !IsSet(answer, "unexplained");
}
