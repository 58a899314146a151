#include "ConfigurationFixture.h"

#include <algorithm>
#include <iterator>
#include <memory>

#include <cJSON.h>

namespace {

using WrittenTree = std::unique_ptr<cJSON, decltype(&cJSON_Delete)>;

WrittenTree TreeOf(const std::string &text) {
    return {cJSON_Parse(text.c_str()), &cJSON_Delete};
}

std::vector<std::string> Beginning(const std::vector<std::string> &lines, const std::string &beginning) {
    std::vector<std::string> found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [&](const std::string &line) { return line.starts_with(beginning); });
    return found;
}

}  // namespace

std::vector<std::string> Heard::EngineLines(const std::string &beginning) const {
    return Beginning(engine, beginning);
}

std::vector<std::string> Heard::RangeErrors() const {
    return Beginning(errors, "value ");
}

ConfigurationFixture::ConfigurationFixture() {
    machine().memoryAvailable = machine().memoryTotal;
}

Heard ConfigurationFixture::Iterate(const std::string &state, const std::string &policy) {
    (void)TakeTracedLines();
    (void)log.Take();
    Heard heard;
    heard.action = Check(state, policy);
    const std::string countText = "readSystemHealthConfig returning ";
    heard.traces = TakeTracedLines();
    for (const TracedLine &line : heard.traces) {
        if (line.component == "SysHealth.conf" && line.message.starts_with(countText)) {
            EXPECT_FALSE(heard.count) << "the count is traced twice";
            heard.count = std::stoi(line.message.substr(countText.size()));
            EXPECT_EQ(line.message, countText + std::to_string(*heard.count));
        } else if (line.component == "SysHealth.conf") {
            heard.configuration.push_back(line.message);
        } else if (line.component == "SysHealth.eng") {
            heard.engine.push_back(line.message);
        }
    }
    for (const LogLine &line : log.Take())
        if (line.level == wxLOG_Error)
            heard.errors.push_back(line.text);
    return heard;
}

Heard ConfigurationFixture::ReadFile(const std::string &text, const std::string &state) {
    WriteConfig(text);
    return Iterate(state, "");
}

Heard ConfigurationFixture::ReadPolicy(const std::string &policy, const std::string &state) {
    return Iterate(state, policy);
}

std::optional<double> ConfigurationFixture::Written(const std::string &key) {
    const WrittenTree tree = TreeOf(WrittenJson());
    EXPECT_TRUE(cJSON_IsObject(tree.get())) << WrittenJson();
    const cJSON *item = cJSON_GetObjectItemCaseSensitive(tree.get(), key.c_str());
    if (cJSON_IsObject(item))
        item = cJSON_GetObjectItemCaseSensitive(item, "value");
    return cJSON_IsNumber(item) ? std::optional(item->valuedouble) : std::nullopt;
}

std::vector<std::string> ConfigurationFixture::WrittenKeys() {
    const WrittenTree tree = TreeOf(WrittenJson());
    EXPECT_TRUE(cJSON_IsObject(tree.get())) << WrittenJson();
    std::vector<std::string> keys;
    const cJSON *item = nullptr;
    cJSON_ArrayForEach(item, tree.get()) keys.emplace_back(item->string);
    return keys;
}

std::string Member(const SettingNames &setting, const std::string &number) {
    return '"' + setting.key + "\": " + (setting.isThreshold ? "{\"value\": " + number + "}" : number);
}

std::string PolicyOf(const SettingNames &setting, const std::string &number) {
    return "{" + Member(setting, number) + "}";
}

std::string Fixed(double number) {
    return std::to_string(number);
}

std::string OutOfRange(const SettingNames &setting, double stored) {
    return "value " + Fixed(stored) + " for  " + setting.line + " is out of range, max= " + Fixed(setting.max);
}

const SettingNames &SettingOf(const std::string &key) {
    const auto found =
        std::find_if(kSettings.begin(), kSettings.end(), [&](const SettingNames &row) { return row.key == key; });
    EXPECT_NE(found, kSettings.end()) << key;
    return found != kSettings.end() ? *found : kSettings.front();
}
