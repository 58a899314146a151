#include "ConnMetricsRows.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <span>
#include <variant>

#include <emmintrin.h>
#include <wx/strconv.h>

namespace {

/// Bits of the flags word, from bit 0.
constexpr const char *kFlagFields[] = {
    "cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
    "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
    "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
    "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned",
};

/// Lines whose value is a number.
constexpr std::string_view kNumberFields[] = {"flags", "pid", "dst_port", "tls_version", "cipher", "container_type"};
constexpr int kFlagsField = 0;

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

template <typename Character>
int NumberFieldOf(std::basic_string_view<Character> name) {
    for (std::size_t i = 0; i < std::size(kNumberFields); ++i)
        if (name.size() == kNumberFields[i].size() && std::equal(name.begin(), name.end(), kNumberFields[i].begin()))
            return static_cast<int>(i);
    return kNoNumberField;
}

/// Calls `found` with the position of each line feed and tab, in order.
template <typename Found>
void ForEachSeparator(std::wstring_view text, const Found &found) {
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] == L'\n' || text[i] == L'\t')
            found(i);
}

/// As above, sixteen characters at a time.
template <typename Found>
void ForEachSeparator(std::string_view text, const Found &found) {
    const __m128i lineFeeds = _mm_set1_epi8('\n');
    const __m128i tabs = _mm_set1_epi8('\t');
    for (std::size_t start = 0; start < text.size(); start += sizeof(__m128i)) {
        alignas(__m128i) char end[sizeof(__m128i)] = {};
        const char *block = text.data() + start;
        if (text.size() - start < sizeof(end))
            block = static_cast<const char *>(std::memcpy(end, block, text.size() - start));
        const __m128i characters = _mm_loadu_si128(reinterpret_cast<const __m128i *>(block));
        const __m128i hits = _mm_or_si128(_mm_cmpeq_epi8(characters, lineFeeds), _mm_cmpeq_epi8(characters, tabs));
        for (unsigned bits = static_cast<unsigned>(_mm_movemask_epi8(hits)); bits != 0; bits &= bits - 1)
            found(start + static_cast<std::size_t>(std::countr_zero(bits)));
    }
}

/// Calls `found` with each line, in order: what is before its first tab, and what is behind that. Empty lines are
/// skipped.
template <typename Character, typename Found>
void ForEachLine(std::basic_string_view<Character> text, const Found &found) {
    std::size_t start = 0;
    std::size_t tab = text.npos;
    const auto endLine = [&](std::size_t end) {
        if (end != start) {
            const auto name = text.substr(start, std::min(tab, end) - start);
            const auto value = tab < end ? text.substr(tab + 1, end - tab - 1) : text.substr(end, 0);
            found(ConnMetricLine<Character>{name, value, NumberFieldOf(name)});
        }
        start = end + 1;
        tab = text.npos;
    };
    ForEachSeparator(text, [&](std::size_t i) {
        if (text[i] == '\n')
            endLine(i);
        else
            tab = std::min(tab, i);
    });
    endLine(text.size());
}

/// Does work that needs memory of C++. No Lua call in it: an exception would leave through Lua's frames.
template <typename Work>
void WithMemory(lua_State *L, const Work &work) {
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
int NumberFromText(std::basic_string_view<Character> text, std::wstring &wide) {
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
bool NarrowAscii(std::wstring_view text, std::string &narrow) {
    narrow.resize(text.size());
    unsigned all = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        all |= text[i];
        narrow[i] = static_cast<char>(text[i]);
    }
    return all < 0x80;
}

/// Fills `narrow` with the text in the locale's encoding; leaves it empty where that can't hold the text.
void NarrowToLocale(std::wstring_view text, std::wstring &wide, std::string &narrow) {
    wide.assign(text);                                                         // with a NUL behind it
    const std::size_t bytes = wxConvLibc.FromWChar(nullptr, 0, wide.c_str());  // that NUL among them
    narrow.resize(bytes == wxCONV_FAILED ? 0 : bytes);
    if (!narrow.empty() && wxConvLibc.FromWChar(narrow.data(), bytes, wide.c_str()) != wxCONV_FAILED)
        narrow.pop_back();
    else
        narrow.clear();
}

void PushMetricText(lua_State *L, std::string_view text, ConnMetricsDrain &) {
    lua_pushlstring(L, text.data(), text.size());
}

/// Pushes ASCII as it is: a locale may be unable to convert anything, though its encoding could hold it.
void PushMetricText(lua_State *L, std::wstring_view text, ConnMetricsDrain &drain) {
    WithMemory(L, [text, &drain] {
        if (!NarrowAscii(text, drain.narrow))
            NarrowToLocale(text, drain.wide, drain.narrow);
    });
    lua_pushlstring(L, drain.narrow.data(), drain.narrow.size());
}

void SetNumberField(lua_State *L, int nameIndex, lua_Number number) {
    lua_pushvalue(L, nameIndex);
    lua_pushnumber(L, number);
    lua_rawset(L, kRowIndex);
}

void SetFlagFields(lua_State *L, std::uint32_t flags) {
    for (int bit = 0; bit < static_cast<int>(std::size(kFlagFields)); ++bit)
        SetNumberField(L, kFirstFlagIndex + bit, (flags >> bit) & 1U);
}

template <typename Character>
void SetFieldsOfLine(lua_State *L, const ConnMetricLine<Character> &line, ConnMetricsDrain &drain) {
    if (line.numberField == kNoNumberField) {
        PushMetricText(L, line.name, drain);
        PushMetricText(L, line.value, drain);
        lua_rawset(L, kRowIndex);
        return;
    }
    int number = 0;
    WithMemory(L, [&] { number = NumberFromText(line.value, drain.wide); });
    if (line.numberField == kFlagsField)
        SetFlagFields(L, static_cast<std::uint32_t>(number));
    SetNumberField(L, kFirstNumberIndex + line.numberField, number);
}

/// Fields that the lines will make, the count among them, if no name occurs twice.
template <typename Character>
int FieldCount(std::span<const ConnMetricLine<Character>> lines) {
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
            lua_createtable(L, 0, FieldCount(lines));
        made = true;
        for (const ConnMetricLine<Character> &line : lines)
            SetFieldsOfLine(L, line, drain);
        count = 0;
    };
    ForEachLine(text, [&](const ConnMetricLine<Character> &line) {
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

// Entries lie scattered in the heap, in the order in which they were added: what comes next is brought into the cache
// while the one before it is at work.
void PrefetchText(ConnMetricText text, std::size_t maxBytes) {
    constexpr std::size_t cacheLine = 64;
    const auto *const ascii = std::get_if<std::string_view>(&text);
    if (!ascii)
        return;
    const std::size_t bytes = std::min(ascii->size(), maxBytes);
    for (std::size_t i = 0; i < bytes; i += cacheLine)
        _mm_prefetch(ascii->data() + i, _MM_HINT_T0);
}

void PushFieldNames(lua_State *L) {
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
    PushFieldNames(L);

    int index = 1;
    for (auto entry = drain.entries.cbegin(); entry != drain.entries.cend();) {
        const ConnMetric &metric = *entry;
        if (++entry != drain.entries.cend())
            PrefetchText(entry->Text(), kPrefetchBytes);
        PushMetricRow(L, metric.Text(), drain);
        // compat 15: set last, so that it overwrites a field that the text calls "count"
        SetNumberField(L, kCountIndex, metric.count);
        lua_rawseti(L, kResultIndex, index++);
    }
    lua_settop(L, kResultIndex);
    return 1;
}

void FreeConnMetrics(ConnMetricsMap &entries) {
    for (auto entry = entries.begin(); entry != entries.end();) {
        const auto next = std::next(entry);
        if (next != entries.end())
            PrefetchText(next->Key(), 1);
        entries.erase(entry);
        entry = next;
    }
}
