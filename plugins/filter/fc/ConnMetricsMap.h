// Counters of connections by kind, in the order of their keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>

#include <wx/string.h>

/// Largest number of keys in a map. A full map still counts for the keys that it holds.
constexpr std::size_t kMaxConnMetricKeys = 10'000;

struct ConnMetricValue {
    wxString text;        ///< Lines of name, tab, value; opaque until they become a row.
    std::uint32_t count;  ///< How often the key was seen; wraps.
};

/// By character code, ascending.
struct ConnMetricKeyOrder {
    bool operator()(const wxString &left, const wxString &right) const { return left.Cmp(right) < 0; }
};

using ConnMetricsMap = std::map<wxString, ConnMetricValue, ConnMetricKeyOrder>;
