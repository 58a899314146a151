#include "HealthPolicy.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <cJSON.h>

#include "HealthTrace.h"
#include "Json.h"
#include "common/Trace.h"

namespace {

/// A number as the argument of a "%s", which becomes text only if the line is wanted.
struct NumberText {
    double number;
};

wxString TraceArgument(const NumberText &text) {
    return wxString::Format("%f", text.number);
}

/// Reads one policy: what has been found so far.
class PolicyReader {
public:
    PolicyReader(HealthConfig &config, const TraceSite &site) : m_config(config), m_site(site) {}

    void TakeItem(SysHealthConfigEntry &entry, const cJSON &item) {
        switch (entry.json_type) {
            case cJSON_Object:
                TakeThreshold(entry, item);
                break;
            case cJSON_Number:
                TakeNumber(entry, item);
                break;
            // not reached: no row has another type; compat 123: misspelt
            default:
                Trace(Engine(), "unsupport json type[%d]", item.type);
                entry.is_set = 0;
        }
    }
    [[nodiscard]] std::int32_t Count() const { return m_count; }

private:
    /// A threshold is an object that holds the number, which must be above 0.
    void TakeThreshold(SysHealthConfigEntry &entry, const cJSON &item) {
        const cJSON *const value = cJSON_GetObjectItem(&item, kPolicyValueKey);
        if (value == nullptr)
            return;
        m_lastThreshold = value->valuedouble;
        if (!cJSON_IsNumber(value))
            return;
        if (value->valuedouble > 0.0 && value->valuedouble <= entry.max_value)
            StoreValue(entry, value->valuedouble, Config());
        else
            TraceOutOfBoundary(Engine());
    }

    /// compat 26: does not check the item's type; what is no number reads as 0, which passes
    void TakeNumber(SysHealthConfigEntry &entry, const cJSON &item) {
        if (item.valuedouble >= 0.0 && item.valuedouble <= entry.max_value)
            StoreValue(entry, item.valuedouble, Config());
        else
            TraceOutOfBoundary(Engine());
    }

    void StoreValue(SysHealthConfigEntry &entry, double value, const TraceLine &line) {
        m_config.AcceptValue(entry, value);
        ++m_count;
        Trace(line, "stored %s  %f", entry.file_key, value);
    }

    /// compat 27: shows the number of the last threshold, whichever row is out of boundary; 0 before the first
    void TraceOutOfBoundary(const TraceLine &line) const {
        Trace(line, " value out of boundary [%s]", NumberText{m_lastThreshold});
    }

    [[nodiscard]] TraceSite Engine() const { return {kEngineTrace, m_site.place}; }
    [[nodiscard]] TraceSite Config() const { return {kConfigTrace, m_site.place}; }

    HealthConfig &m_config;
    TraceSite m_site;
    std::int32_t m_count = 0;
    double m_lastThreshold = 0.0;
};

/// Takes back durations that make no sense.
/// @return how many.
std::int32_t InvalidatePolicyDurations(HealthConfig &config) {
    const SysHealthConfigEntry &minimum = config[SYS_CONF_MIN_ACT_DURATION];
    const SysHealthConfigEntry &maximum = config[SYS_CONF_MAX_ACT_DURATION];
    std::int32_t invalid = 0;
    if (minimum.is_set != 0 && minimum.value <= 0.0) {
        invalidateConfig(config, SYS_CONF_MIN_ACT_DURATION, wxString::Format("min_dur(%f) <= 0", minimum.value));
        ++invalid;
    }
    if (maximum.is_set != 0 && maximum.value <= 0.0) {
        invalidateConfig(config, SYS_CONF_MAX_ACT_DURATION, wxString::Format("max_dur(%f) <= 0", maximum.value));
        ++invalid;
    }
    if (minimum.is_set != 0 && maximum.is_set != 0 && minimum.value > maximum.value) {
        invalidateConfig(config, SYS_CONF_MAX_ACT_DURATION,
                         wxString::Format("max_dur(%f) < min_dur(%f)", maximum.value, minimum.value));
        ++invalid;
    }
    return invalid;
}

/// Where the policy's value begins: behind a byte order mark and blanks, as cJSON skips them.
const char *PolicyValueIn(const char *json) {
    constexpr std::string_view byteOrderMark = "\xEF\xBB\xBF";
    if (std::strncmp(json, byteOrderMark.data(), byteOrderMark.size()) == 0)
        json += byteOrderMark.size();
    while (*json != '\0' && static_cast<unsigned char>(*json) <= ' ')
        ++json;
    return json;
}

/// Where a text continues after the string that begins it; at its end if the string has none.
const char *AfterString(const char *json) {
    for (++json; *json != '\0' && *json != '"'; ++json) {
        if (*json == '\\' && json[1] != '\0')
            ++json;
    }
    return *json == '"' ? json + 1 : json;
}

/// Where a number of far more characters than any number needs begins, outside of strings; null if there is none. Text
/// after the value does not count. The C library's time for a number grows with the square of its length: a megabyte
/// of digits takes half a minute.
const char *FindOverlongPolicyNumber(const char *json) {
    constexpr std::size_t maxCharacters = 65'536;
    const auto numberLength = [](const char *text) { return std::strspn(text, "0123456789+-.eE"); };
    json = PolicyValueIn(json);
    if (*json != '{' && *json != '[')  // a number, string or word alone
        return numberLength(json) > maxCharacters ? json : nullptr;
    int depth = 0;
    while (*json != '\0') {
        if (*json == '"') {
            json = AfterString(json);
            continue;
        }
        if (*json == '{' || *json == '[')
            ++depth;
        else if ((*json == '}' || *json == ']') && --depth == 0)
            return nullptr;
        const std::size_t length = numberLength(json);
        if (length > maxCharacters)
            return json;
        json += std::max<std::size_t>(length, 1);
    }
    return nullptr;
}

struct ParsedPolicy {
    Json root;                    ///< Null for a failure.
    const char *error = nullptr;  ///< The place of a failure; null if there is none, or it is not known.
};

ParsedPolicy ParsePolicy(const char *json) {
    if (const char *const number = FindOverlongPolicyNumber(json))
        return {nullptr, number};
    ParsedPolicy parsed{Json(cJSON_ParseWithOpts(json, nullptr, 0))};
    if (!parsed.root) {
        // The position is the whole process's: another thread may have parsed something else meanwhile.
        const char *const place = cJSON_GetErrorPtr();
        if (place >= json && place <= json + std::strlen(json))  // not reached: outside, without such a thread
            parsed.error = place;
    }
    return parsed;
}

}  // namespace

std::int32_t readSystemHealthPolicy(HealthConfig &config, VtaCore::CDom &dom, std::int32_t activated,
                                    const char *json) {
    config.Reset();
    ParsedPolicy policy = ParsePolicy(json);
    if (!policy.root) {
        if (policy.error != nullptr)  // not reached: null, for the same reason
            Trace(kEngineTrace, "json parsing error [%s]", OutsideText{policy.error});
        // compat 25: not 0, so the iteration goes on with its interval alone; the agent's flag stays as it was
        return 1;
    }

    PolicyReader reader(config, kConfigTrace);
    for (SysHealthConfigEntry &entry : config)
        if (const cJSON *const item = cJSON_GetObjectItem(policy.root.get(), entry.policy_key))
            reader.TakeItem(entry, *item);
    const std::int32_t count = reader.Count() - InvalidatePolicyDurations(config);
    ApplyConfiguredUnloadDriver(config, dom, kConfigTrace, "Windows driver unload enabled for fail-open (from policy)");
    policy.root.reset();

    if (IsDisabledByHealthConfig(config, kConfigTrace))
        return 0;
    // compat 24: turns the driver's metrics off in fail-open, but they are counted already
    if (activated != 0)
        config.DisableDriverMetrics();
    if (count > 0)  // compat 28: the file reader's text; only the traced function differs
        Trace(kConfigTrace, "readSystemHealthConfig returning %d", count);
    return count;
}
