// Counters of connections by kind, in the order of their keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <variant>

#include <wx/string.h>

/// Largest number of keys in a map. A full map still counts for the keys that it holds.
constexpr std::size_t kMaxConnMetricKeys = 10'000;

/// ASCII takes one byte a character, and reaches Lua as it is; any other text is wide.
using ConnMetricText = std::variant<std::string, wxString>;

struct ConnMetricValue {
    ConnMetricText text;  ///< Lines of name, tab, value; opaque until they become a row.
    std::uint32_t count;  ///< How often the key was seen; wraps.
};

/// By character code, ascending.
struct ConnMetricKeyOrder {
    bool operator()(const wxString &left, const wxString &right) const { return left.Cmp(right) < 0; }
};

using ConnMetricsMap = std::map<wxString, ConnMetricValue, ConnMetricKeyOrder>;

/// Adds the counts of keys that both maps hold; the text in `into` stays. Other entries move over while there is
/// room, in key order; what had no room stays in `from`. Allocates nothing.
void FoldConnMetrics(ConnMetricsMap &from, ConnMetricsMap &into);
