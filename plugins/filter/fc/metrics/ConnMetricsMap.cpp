#include "ConnMetricsMap.h"

#include <algorithm>

namespace {

unsigned CodeOf(char character) {
    return static_cast<unsigned char>(character);
}
unsigned CodeOf(wchar_t character) {
    return character;
}

template <typename Left, typename Right>
int CompareAcross(Left left, Right right) {
    const auto [inLeft, inRight] = std::mismatch(left.begin(), left.end(), right.begin(), right.end(),
                                                 [](auto one, auto other) { return CodeOf(one) == CodeOf(other); });
    if (inLeft == left.end() || inRight == right.end())
        return (inRight == right.end() ? 1 : 0) - (inLeft == left.end() ? 1 : 0);
    return CodeOf(*inLeft) < CodeOf(*inRight) ? -1 : 1;
}

template <typename Character>
void Append(std::basic_string<Character> &to, const ConnMetricText &text) {
    std::visit([&to](auto characters) { to.append(characters.begin(), characters.end()); }, text);
}

std::size_t Length(const ConnMetricText &text) {
    return std::visit([](auto characters) { return characters.size(); }, text);
}

template <typename Character>
std::basic_string<Character> Joined(const ConnMetricText &key, const ConnMetricText &text) {
    std::basic_string<Character> joined;
    joined.reserve(Length(key) + Length(text));
    Append(joined, key);
    Append(joined, text);
    return joined;
}

bool IsNarrow(const ConnMetricText &text) {
    return std::holds_alternative<std::string_view>(text);
}

}  // namespace

int CompareMetricTexts(const ConnMetricText &left, const ConnMetricText &right) {
    if (const auto *const narrow = std::get_if<std::string_view>(&left))
        if (const auto *const other = std::get_if<std::string_view>(&right))
            return narrow->compare(*other);
    return std::visit([](auto one, auto other) { return CompareAcross(one, other); }, left, right);
}

ConnMetric::ConnMetric(const ConnMetricText &key, const ConnMetricText &text, std::uint32_t seen)
    : count(seen), m_keyLength(Length(key)) {
    if (IsNarrow(key) && IsNarrow(text))
        m_keyAndText = Joined<char>(key, text);
    else
        m_keyAndText = Joined<wchar_t>(key, text);
}

ConnMetricText ConnMetric::Key() const {
    if (const auto *const narrow = std::get_if<std::string>(&m_keyAndText))
        return std::string_view(*narrow).substr(0, m_keyLength);
    return std::wstring_view(*std::get_if<std::wstring>(&m_keyAndText)).substr(0, m_keyLength);
}

ConnMetricText ConnMetric::Text() const {
    if (const auto *const narrow = std::get_if<std::string>(&m_keyAndText))
        return std::string_view(*narrow).substr(m_keyLength);
    return std::wstring_view(*std::get_if<std::wstring>(&m_keyAndText)).substr(m_keyLength);
}

void FoldConnMetrics(ConnMetricsMap &from, ConnMetricsMap &into) {
    if (into.empty()) {
        into.swap(from);
        return;
    }
    // Both are in key order: one walk through both finds each entry's place.
    auto place = into.begin();
    for (auto next = from.begin(); next != from.end();) {
        const auto entry = next++;
        const ConnMetricText key = entry->Key();
        int order = -1;
        while (place != into.end() && (order = CompareMetricTexts(place->Key(), key)) < 0)
            ++place;
        if (place != into.end() && order == 0)
            place->count += entry->count;
        else if (into.size() < kMaxConnMetricKeys)
            into.insert(place, from.extract(entry));
    }
}
