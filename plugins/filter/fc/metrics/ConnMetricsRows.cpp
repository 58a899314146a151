#include "ConnMetricsRows.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <new>
#include <span>
#include <variant>

#include <wx/strconv.h>

namespace {

/// Bits of the flags word, from bit 0.
constexpr const char *kFlagFields[] = {
    "cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
    "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
    "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
    "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned",
};

/// Of the next text, while Lua builds the row before it.
constexpr std::size_t kPrefetchBytes = 512;

// The Lua stack while rows are built: names as Lua strings, each made once.
constexpr int kDrainIndex = 1;
constexpr int kResultIndex = 2;
constexpr int kFirstFlagIndex = 3;
constexpr int kFirstNumberIndex = kFirstFlagIndex + static_cast<int>(std::size(kFlagFields));
constexpr int kCountIndex = kFirstNumberIndex + static_cast<int>(std::size(kNumberFields));
constexpr int kRowIndex = kCountIndex + 1;
constexpr int kStackNeeded = kRowIndex + 3;

/// Does work that needs memory of C++. No Lua call in it: an exception would leave through Lua's frames.
template <typename Work>
void WithMemoryForRow(lua_State *L, const Work &work) {
    bool done = false;
    try {
        work();
        done = true;
    } catch (const std::bad_alloc &) {  // raised below, where nothing is alive
    }
    if (!done)
        luaL_error(L, "not enough memory");
}

/// What _wtoi makes of the text: the number at its start, 0 where there is none.
/// @param wide  room for the text.
template <typename Character>
int NumberFromRowText(std::basic_string_view<Character> text, std::wstring &wide) {
    constexpr std::size_t maxPlainDigits = 9;  // always below 2 to the power of 31
    int number = 0;
    if (text.size() <= maxPlainDigits) {
        std::size_t digits = 0;
        for (; digits < text.size() && text[digits] >= '0' && text[digits] <= '9'; ++digits)
            number = number * 10 + (text[digits] - '0');
        if (digits == text.size())
            return number;
    }
    wide.assign(text.begin(), text.end());
    return _wtoi(wide.c_str());
}

/// @return false if the text is not ASCII throughout; `narrow` is of no use then.
bool NarrowAsciiRowText(std::wstring_view text, std::string &narrow) {
    narrow.resize(text.size());
    unsigned all = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        all |= text[i];
        narrow[i] = static_cast<char>(text[i]);
    }
    return all < 0x80;
}

/// Fills `narrow` with the text in the locale's encoding; leaves it empty where that can't hold the text.
void NarrowRowTextToLocale(std::wstring_view text, std::wstring &wide, std::string &narrow) {
    wide.assign(text);                                                         // with a NUL behind it
    const std::size_t bytes = wxConvLibc.FromWChar(nullptr, 0, wide.c_str());  // that NUL among them
    narrow.resize(bytes == wxCONV_FAILED ? 0 : bytes);
    if (!narrow.empty() && wxConvLibc.FromWChar(narrow.data(), bytes, wide.c_str()) != wxCONV_FAILED)
        narrow.pop_back();
    else
        narrow.clear();
}

void PushRowText(lua_State *L, std::string_view text, ConnMetricsDrain &) {
    lua_pushlstring(L, text.data(), text.size());
}

/// Pushes ASCII as it is: a locale may be unable to convert anything, though its encoding could hold it.
void PushRowText(lua_State *L, std::wstring_view text, ConnMetricsDrain &drain) {
    WithMemoryForRow(L, [text, &drain] {
        if (!NarrowAsciiRowText(text, drain.narrow))
            NarrowRowTextToLocale(text, drain.wide, drain.narrow);
    });
    lua_pushlstring(L, drain.narrow.data(), drain.narrow.size());
}

void SetRowNumberField(lua_State *L, int nameIndex, lua_Number number) {
    lua_pushvalue(L, nameIndex);
    lua_pushnumber(L, number);
    lua_rawset(L, kRowIndex);
}

void SetRowFlagFields(lua_State *L, std::uint32_t flags) {
    for (int bit = 0; bit < static_cast<int>(std::size(kFlagFields)); ++bit)
        SetRowNumberField(L, kFirstFlagIndex + bit, (flags >> bit) & 1U);
}

template <typename Character>
void SetRowFieldsOfLine(lua_State *L, const ConnMetricLine<Character> &line, ConnMetricsDrain &drain) {
    if (line.numberField == kNoNumberField) {
        PushRowText(L, line.name, drain);
        PushRowText(L, line.value, drain);
        lua_rawset(L, kRowIndex);
        return;
    }
    int number = 0;
    WithMemoryForRow(L, [&] { number = NumberFromRowText(line.value, drain.wide); });
    if (line.numberField == kFlagsField)
        SetRowFlagFields(L, static_cast<std::uint32_t>(number));
    SetRowNumberField(L, kFirstNumberIndex + line.numberField, number);
}

/// Fields that the lines will make, the count among them, if no name occurs twice.
template <typename Character>
int RowFieldCount(std::span<const ConnMetricLine<Character>> lines) {
    const bool hasFlags =
        std::any_of(lines.begin(), lines.end(), [](const auto &line) { return line.numberField == kFlagsField; });
    return static_cast<int>(lines.size() + 1 + (hasFlags ? std::size(kFlagFields) : 0));
}

/// Leaves a row with the fields of the text on the stack.
/// @param ahead  room for its first lines, and then for those that come next.
template <typename Character>
void PushMetricRow(lua_State *L, std::basic_string_view<Character> text, ConnMetricLinesAhead<Character> &ahead,
                   ConnMetricsDrain &drain) {
    std::size_t count = 0;
    bool made = false;
    const auto setLines = [&] {
        const auto lines = std::span<const ConnMetricLine<Character>>(ahead).first(count);
        if (!made)
            lua_createtable(L, 0, RowFieldCount(lines));
        made = true;
        for (const ConnMetricLine<Character> &line : lines)
            SetRowFieldsOfLine(L, line, drain);
        count = 0;
    };
    ForEachMetricLine(text, [&](const ConnMetricLine<Character> &line) {
        if (count == ahead.size())
            setLines();
        ahead[count++] = line;
    });
    setLines();
}

void PushMetricRow(lua_State *L, ConnMetricText text, ConnMetricsDrain &drain) {
    if (const auto *const ascii = std::get_if<std::string_view>(&text))
        PushMetricRow(L, *ascii, drain.lines, drain);
    else
        PushMetricRow(L, *std::get_if<std::wstring_view>(&text), drain.wideLines, drain);
}

void PushRowFieldNames(lua_State *L) {
    for (const char *name : kFlagFields)
        lua_pushstring(L, name);
    for (const std::string_view name : kNumberFields)
        lua_pushlstring(L, name.data(), name.size());
    lua_pushstring(L, "count");
}

}  // namespace

int BuildConnMetricsRows(lua_State *L) {
    ConnMetricsDrain &drain = *static_cast<ConnMetricsDrain *>(lua_touserdata(L, kDrainIndex));
    luaL_checkstack(L, kStackNeeded, nullptr);
    lua_createtable(L, 0, 0);
    PushRowFieldNames(L);

    int index = 1;
    for (auto entry = drain.entries.cbegin(); entry != drain.entries.cend();) {
        const ConnMetric &metric = *entry;
        if (++entry != drain.entries.cend())
            PrefetchMetricText(entry->Text(), kPrefetchBytes);
        PushMetricRow(L, metric.Text(), drain);
        // compat 15: set last, so that it overwrites a field that the text calls "count"
        SetRowNumberField(L, kCountIndex, metric.count);
        lua_rawseti(L, kResultIndex, index++);
    }
    lua_settop(L, kResultIndex);
    return 1;
}
