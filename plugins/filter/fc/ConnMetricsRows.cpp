#include "ConnMetricsRows.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>

#include "AsciiText.h"

namespace {

/// Bits of the flags word, from bit 0.
constexpr const char *kFlagFields[] = {
    "cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
    "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
    "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
    "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned",
};

struct NumberField {
    const char *name;
    std::wstring_view wide;
};

/// Lines whose value is a number; the first is the flags word.
constexpr NumberField kNumberFields[] = {
    {"flags", L"flags"},       {"pid", L"pid"},
    {"dst_port", L"dst_port"}, {"tls_version", L"tls_version"},
    {"cipher", L"cipher"},     {"container_type", L"container_type"},
};

// The Lua stack while rows are built: names as Lua strings, each made once.
constexpr int kDrainIndex = 1;
constexpr int kResultIndex = 2;
constexpr int kFirstFlagIndex = 3;
constexpr int kFirstNumberIndex = kFirstFlagIndex + static_cast<int>(std::size(kFlagFields));
constexpr int kCountIndex = kFirstNumberIndex + static_cast<int>(std::size(kNumberFields));
constexpr int kRowIndex = kCountIndex + 1;
constexpr int kStackNeeded = kRowIndex + 3;

constexpr int kNoNumberField = -1;

int NumberFieldOf(std::wstring_view name) {
    for (std::size_t i = 0; i < std::size(kNumberFields); ++i)
        if (name == kNumberFields[i].wide)
            return static_cast<int>(i);
    return kNoNumberField;
}

/// Splits at line feeds; empty lines are skipped.
void SplitLines(std::wstring_view text, std::vector<ConnMetricLine> &lines) {
    lines.clear();
    while (!text.empty()) {
        const std::wstring_view line = text.substr(0, text.find(L'\n'));
        text.remove_prefix(line.size() < text.size() ? line.size() + 1 : line.size());
        if (line.empty())
            continue;
        const std::size_t tab = line.find(L'\t');
        if (tab == std::wstring_view::npos)
            lines.push_back({line, {}});
        else
            lines.push_back({line.substr(0, tab), line.substr(tab + 1)});
    }
}

/// What _wtoi makes of the text: the number at its start, 0 where there is none.
int NumberFromText(std::wstring_view text) {
    constexpr std::size_t maxPlainDigits = 9;  // always below 2 to the power of 31
    int number = 0;
    if (text.size() <= maxPlainDigits) {
        std::size_t digits = 0;
        for (; digits < text.size() && text[digits] >= L'0' && text[digits] <= L'9'; ++digits)
            number = number * 10 + (text[digits] - L'0');
        if (digits == text.size())
            return number;
    }
    return _wtoi(std::wstring(text).c_str());
}

/// Fills `narrow` with the text in the locale's encoding; empty where that can't hold it.
void ToLocale(std::wstring_view text, std::string &narrow) {
    if (IsAscii(text)) {
        narrow.resize(text.size());
        for (std::size_t i = 0; i < text.size(); ++i)
            narrow[i] = static_cast<char>(text[i]);
        return;
    }
    const wxString wide(text.data(), text.size());
    const wxScopedCharBuffer converted = wide.mb_str();  // may point into `wide`
    narrow.assign(converted.data());
}

void SetNumber(lua_State *L, int nameIndex, lua_Number number) {
    lua_pushvalue(L, nameIndex);
    lua_pushnumber(L, number);
    lua_rawset(L, kRowIndex);
}

void SetFlags(lua_State *L, std::uint32_t flags) {
    for (int bit = 0; bit < static_cast<int>(std::size(kFlagFields)); ++bit)
        SetNumber(L, kFirstFlagIndex + bit, (flags >> bit) & 1U);
}

void SetText(lua_State *L, const ConnMetricLine &line, std::string &narrow) {
    ToLocale(line.name, narrow);
    lua_pushlstring(L, narrow.data(), narrow.size());
    ToLocale(line.value, narrow);
    lua_pushlstring(L, narrow.data(), narrow.size());
    lua_rawset(L, kRowIndex);
}

void SetLine(lua_State *L, const ConnMetricLine &line, std::string &narrow) {
    const int field = NumberFieldOf(line.name);
    if (field == kNoNumberField) {
        SetText(L, line, narrow);
        return;
    }
    const int number = NumberFromText(line.value);
    if (field == 0)
        SetFlags(L, static_cast<std::uint32_t>(number));
    SetNumber(L, kFirstNumberIndex + field, number);
}

/// Fields that the lines will make, the count among them, if no name occurs twice.
int FieldCount(const std::vector<ConnMetricLine> &lines) {
    const bool hasFlags = std::any_of(lines.begin(), lines.end(),
                                      [](const ConnMetricLine &line) { return line.name == kNumberFields[0].wide; });
    return static_cast<int>(lines.size() + 1 + (hasFlags ? std::size(kFlagFields) : 0));
}

void PushNames(lua_State *L) {
    for (const char *name : kFlagFields)
        lua_pushstring(L, name);
    for (const NumberField &field : kNumberFields)
        lua_pushstring(L, field.name);
    lua_pushstring(L, "count");
}

}  // namespace

int BuildConnMetricsRows(lua_State *L) {
    ConnMetricsDrain &drain = *static_cast<ConnMetricsDrain *>(lua_touserdata(L, kDrainIndex));
    luaL_checkstack(L, kStackNeeded, nullptr);
    lua_createtable(L, 0, 0);
    PushNames(L);

    int index = 1;
    for (const auto &[key, value] : drain.entries) {
        SplitLines(std::wstring_view(value.text.wx_str(), value.text.length()), drain.lines);
        lua_createtable(L, 0, FieldCount(drain.lines));
        for (const ConnMetricLine &line : drain.lines)
            SetLine(L, line, drain.narrow);
        // Last, so that it overwrites a field that the text calls "count".
        SetNumber(L, kCountIndex, value.count);
        lua_rawseti(L, kResultIndex, index++);
    }
    lua_settop(L, kResultIndex);
    return 1;
}
