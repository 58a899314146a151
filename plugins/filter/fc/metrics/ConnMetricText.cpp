#include "ConnMetricText.h"

#include <algorithm>

#include <emmintrin.h>

namespace {

unsigned MetricTextCode(char character) {
    return static_cast<unsigned char>(character);
}
unsigned MetricTextCode(wchar_t character) {
    return character;
}

template <typename Left, typename Right>
int CompareMetricTextsOfTwoWidths(Left left, Right right) {
    const auto [inLeft, inRight] =
        std::mismatch(left.begin(), left.end(), right.begin(), right.end(),
                      [](auto one, auto other) { return MetricTextCode(one) == MetricTextCode(other); });
    if (inLeft == left.end() || inRight == right.end())
        return (inRight == right.end() ? 1 : 0) - (inLeft == left.end() ? 1 : 0);
    return MetricTextCode(*inLeft) < MetricTextCode(*inRight) ? -1 : 1;
}

}  // namespace

int CompareMetricTexts(const ConnMetricText &left, const ConnMetricText &right) {
    if (const auto *const narrow = std::get_if<std::string_view>(&left))
        if (const auto *const other = std::get_if<std::string_view>(&right))
            return narrow->compare(*other);
    return std::visit([](auto one, auto other) { return CompareMetricTextsOfTwoWidths(one, other); }, left, right);
}

std::size_t LengthOfMetricText(const ConnMetricText &text) {
    return std::visit([](auto characters) { return characters.size(); }, text);
}

bool IsNarrowMetricText(const ConnMetricText &text) {
    return std::holds_alternative<std::string_view>(text);
}

void PrefetchMetricText(const ConnMetricText &text, std::size_t maxBytes) {
    constexpr std::size_t cacheLine = 64;
    const auto *const ascii = std::get_if<std::string_view>(&text);
    if (!ascii)
        return;
    const std::size_t bytes = std::min(ascii->size(), maxBytes);
    for (std::size_t i = 0; i < bytes; i += cacheLine)
        _mm_prefetch(ascii->data() + i, _MM_HINT_T0);
}
