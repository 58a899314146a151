#include "CloudConfig.h"

#include <cstdio>
#include <string>

#include <cJSON.h>

#include "FileHandle.h"
#include "HealthConfig.h"
#include "HealthPolicy.h"
#include "HealthTrace.h"
#include "Json.h"
#include "common/Trace.h"
#include "common/Unique.h"

namespace {

constexpr char kCloudConfigFile[] = "C:\\ProgramData\\Quillon\\Vantry Agent\\diag\\vt_filter_json.log";

using JsonText = Unique<char *, cJSON_free>;

/// Adds one value to the root. A number that finds no memory is left out.
/// @return false if there is no memory for the object around it.
bool AddCloudConfigEntry(cJSON &root, const SysHealthConfigEntry &entry) {
    if (entry.json_type == cJSON_Number) {
        (void)cJSON_AddNumberToObject(&root, entry.policy_key, entry.value);
        return true;
    }
    Json object(cJSON_CreateObject());
    if (!object)
        return false;
    (void)cJSON_AddNumberToObject(object.get(), kPolicyValueKey, entry.value);
    if (cJSON_AddItemToObject(&root, entry.policy_key, object.get()) != 0)
        (void)object.release();  // the root's from here on
    return true;
}

}  // namespace

bool outputCloudConfig(const HealthConfig &config) {
    const Json root(cJSON_CreateObject());
    if (!root) {
        Trace(kEngineTrace, "Fail to cJSON_CreateObject for root");
        return false;
    }
    for (const SysHealthConfigEntry &entry : config) {
        if (entry.is_set == 1 && !AddCloudConfigEntry(*root, entry)) {
            Trace(kEngineTrace, "Fail to cJSON_CreateObject for object");
            return false;
        }
    }
    const JsonText text(cJSON_Print(root.get()));
    if (!text) {
        Trace(kEngineTrace, "Fail to print JSON");
        return false;
    }
    const FileHandle file(std::fopen(kCloudConfigFile, "w"));
    if (!file) {
        Trace(kEngineTrace, "Failed to open file of json config for writing.");
        return false;
    }
    // Not fprintf, which MinGW's runtime reports as done whatever became of the characters.
    const std::string line = std::string(text.get()) + "\n";
    if (std::fputs(line.c_str(), file.get()) < 0 || std::fflush(file.get()) != 0) {
        Trace(kEngineTrace, "Failed to write json config to file");
        return false;
    }
    return true;
}
