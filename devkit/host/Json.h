// Owner and printed form of cJSON values.
#pragma once

#include <memory>
#include <string>

#include <cJSON.h>

struct DeleteJson {
    void operator()(cJSON *value) const { cJSON_Delete(value); }
};
using JsonPtr = std::unique_ptr<cJSON, DeleteJson>;

/// Indented, with a line feed at the end.
inline std::string PrintJson(const cJSON *value) {
    struct FreeText {
        void operator()(char *text) const { cJSON_free(text); }
    };
    const std::unique_ptr<char, FreeText> text(cJSON_Print(value));
    return text != nullptr ? std::string(text.get()) + "\n" : std::string();
}
