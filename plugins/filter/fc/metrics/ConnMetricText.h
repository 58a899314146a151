// A key or a text of the connection metrics, without a copy.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

/// ASCII takes one byte a character, and reaches Lua as it is; any other text is wide.
using ConnMetricText = std::variant<std::string_view, std::wstring_view>;

/// @return less than, equal to or greater than 0, by character code.
int CompareMetricTexts(const ConnMetricText &left, const ConnMetricText &right);

/// In characters.
std::size_t LengthOfMetricText(const ConnMetricText &text);

bool IsNarrowMetricText(const ConnMetricText &text);

/// Brings the beginning of a narrow text into the cache. Entries lie scattered in the heap, in the order in which they
/// were added: whoever goes through them asks for the next one while it works on the one before it.
void PrefetchMetricText(const ConnMetricText &text, std::size_t maxBytes);

/// One text behind the other.
/// @tparam Character  char only if both are narrow.
template <typename Character>
std::basic_string<Character> JoinMetricTexts(const ConnMetricText &left, const ConnMetricText &right) {
    std::basic_string<Character> joined;
    joined.reserve(LengthOfMetricText(left) + LengthOfMetricText(right));
    for (const ConnMetricText &text : {left, right})
        std::visit([&joined](auto characters) { joined.append(characters.begin(), characters.end()); }, text);
    return joined;
}
