// Counters of connections by kind, in the order of their keys.
#pragma once

#include <cstddef>
#include <set>

#include "ConnMetric.h"
#include "ConnMetricText.h"

/// Largest number of keys in a map. A full map still counts for the keys that it holds.
constexpr std::size_t kMaxConnMetricKeys = 10'000;

/// By the character codes of the keys, ascending.
struct ConnMetricsMapOrder {
    using is_transparent = void;
    bool operator()(const ConnMetric &left, const ConnMetric &right) const {
        return CompareMetricTexts(left.Key(), right.Key()) < 0;
    }
    bool operator()(const ConnMetric &left, const ConnMetricText &right) const {
        return CompareMetricTexts(left.Key(), right) < 0;
    }
};

using ConnMetricsMap = std::set<ConnMetric, ConnMetricsMapOrder>;

/// Adds the counts of keys that both maps hold; the text in `into` stays. Other entries move over while there is
/// room, in key order; what had no room stays in `from`. Allocates nothing.
void FoldConnMetricsMap(ConnMetricsMap &from, ConnMetricsMap &into);

/// Leaves the map empty. Asks early for the memory of what it frees next, which `clear` of the map would wait for.
void FreeConnMetricsMap(ConnMetricsMap &entries);
