#include "ConnMetricsMap.h"

#include <iterator>

void FoldConnMetricsMap(ConnMetricsMap &from, ConnMetricsMap &into) {
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

void FreeConnMetricsMap(ConnMetricsMap &entries) {
    for (auto entry = entries.begin(); entry != entries.end();) {
        const auto next = std::next(entry);
        if (next != entries.end())
            PrefetchMetricText(next->Key(), 1);
        entries.erase(entry);
        entry = next;
    }
}
