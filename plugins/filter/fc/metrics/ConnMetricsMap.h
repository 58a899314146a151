// Counters of connections by kind, in the order of their keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <variant>

/// Largest number of keys in a map. A full map still counts for the keys that it holds.
constexpr std::size_t kMaxConnMetricKeys = 10'000;

/// ASCII takes one byte a character, and reaches Lua as it is; any other text is wide.
using ConnMetricText = std::variant<std::string_view, std::wstring_view>;

/// @return less than, equal to or greater than 0, by character code.
int CompareMetricTexts(const ConnMetricText &left, const ConnMetricText &right);

/// A key, what is known of it, and how often it was seen. Key and text are one block of memory: a drain frees
/// thousands of them.
class ConnMetric {
public:
    /// @param text  lines of name, tab, value; opaque until they become a row.
    ConnMetric(const ConnMetricText &key, const ConnMetricText &text, std::uint32_t seen);

    [[nodiscard]] ConnMetricText Key() const;
    [[nodiscard]] ConnMetricText Text() const;

    mutable std::uint32_t count;  ///< Wraps. No part of the order.

private:
    std::size_t m_keyLength;
    std::variant<std::string, std::wstring> m_keyAndText;  ///< Bytes if both are ASCII.
};

/// By the character codes of the keys, ascending.
struct ConnMetricOrder {
    using is_transparent = void;
    bool operator()(const ConnMetric &left, const ConnMetric &right) const {
        return CompareMetricTexts(left.Key(), right.Key()) < 0;
    }
    bool operator()(const ConnMetric &left, const ConnMetricText &right) const {
        return CompareMetricTexts(left.Key(), right) < 0;
    }
};

using ConnMetricsMap = std::set<ConnMetric, ConnMetricOrder>;

/// Adds the counts of keys that both maps hold; the text in `into` stays. Other entries move over while there is
/// room, in key order; what had no room stays in `from`. Allocates nothing.
void FoldConnMetrics(ConnMetricsMap &from, ConnMetricsMap &into);
