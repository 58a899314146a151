// The lines of an entry's text.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <string_view>

#include <emmintrin.h>

/// Lines whose value is a number.
constexpr std::string_view kNumberFields[] = {"flags", "pid", "dst_port", "tls_version", "cipher", "container_type"};
constexpr int kFlagsField = 0;
constexpr int kNoNumberField = -1;

/// One line of an entry's text.
template <typename Character>
struct ConnMetricLine {
    std::basic_string_view<Character> name;   ///< Before the first tab.
    std::basic_string_view<Character> value;  ///< After it; empty where the line has none.
    int numberField;                          ///< Which of the fields whose value is a number, or kNoNumberField.
};

template <typename Character>
int NumberFieldOfMetricLine(std::basic_string_view<Character> name) {
    for (std::size_t i = 0; i < std::size(kNumberFields); ++i)
        if (name.size() == kNumberFields[i].size() && std::equal(name.begin(), name.end(), kNumberFields[i].begin()))
            return static_cast<int>(i);
    return kNoNumberField;
}

/// Calls `found` with the position of each line feed and tab, in order.
template <typename Found>
void ForEachMetricLineSeparator(std::wstring_view text, const Found &found) {
    for (std::size_t i = 0; i < text.size(); ++i)
        if (text[i] == L'\n' || text[i] == L'\t')
            found(i);
}

/// As above, sixteen characters at a time.
template <typename Found>
void ForEachMetricLineSeparator(std::string_view text, const Found &found) {
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
void ForEachMetricLine(std::basic_string_view<Character> text, const Found &found) {
    std::size_t start = 0;
    std::size_t tab = text.npos;
    const auto endLine = [&](std::size_t end) {
        if (end != start) {
            const auto name = text.substr(start, std::min(tab, end) - start);
            const auto value = tab < end ? text.substr(tab + 1, end - tab - 1) : text.substr(end, 0);
            found(ConnMetricLine<Character>{name, value, NumberFieldOfMetricLine(name)});
        }
        start = end + 1;
        tab = text.npos;
    };
    ForEachMetricLineSeparator(text, [&](std::size_t i) {
        if (text[i] == '\n')
            endLine(i);
        else
            tab = std::min(tab, i);
    });
    endLine(text.size());
}
