#include "ConnMetricsMap.h"

void FoldConnMetrics(ConnMetricsMap &from, ConnMetricsMap &into) {
    if (into.empty()) {
        into.swap(from);
        return;
    }
    // Both are in key order: one walk through both finds each entry's place.
    auto place = into.begin();
    for (auto next = from.begin(); next != from.end();) {
        const auto entry = next++;
        int order = -1;
        while (place != into.end() && (order = place->first.Cmp(entry->first)) < 0)
            ++place;
        if (place != into.end() && order == 0)
            place->second.count += entry->second.count;
        else if (into.size() < kMaxConnMetricKeys)
            into.insert(place, from.extract(entry));
    }
}
