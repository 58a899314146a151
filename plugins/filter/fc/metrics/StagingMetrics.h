// What scripts have added since the last fold.
#pragma once

#include <cstdint>
#include <string_view>

#include "ConnMetricsMap.h"
#include "SeenKeys.h"

/// An ordered map with a shortcut for keys that it holds already. Not thread-safe.
class StagingMetrics {
public:
    /// Adds to the key's count; a new key is inserted with the text, unless the map is full.
    /// @param key, text  in the current locale's encoding, up to the first NUL; a NUL must follow
    ///                   behind their end.
    void Add(std::string_view key, std::string_view text, std::uint32_t count) {
        if (!m_seen.Count(key, count))
            AddToMap(key, text, count);
    }

    /// Folds all entries into `merged`: counts of present keys are added, absent keys move over
    /// while there is room, in key order. What had no room stays here. Only Clear may follow: entries
    /// that have moved are known here no longer than that.
    void FoldInto(ConnMetricsMap &merged);

    void Clear();

private:
    void AddToMap(std::string_view key, std::string_view text, std::uint32_t count);

    ConnMetricsMap m_entries;
    SeenKeys m_seen;
};
