// A shortcut from a key as Lua holds it, in bytes, to the entry of an ordered map, and the counting for
// entries that are found that way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <tsl/robin_set.h>

#include "ConnMetric.h"

/// A hash table for keys of ASCII characters without a NUL. They are the same text in every locale, so that their
/// entries can be found without a conversion. What it needs to know of a key, most keys whole, lies in the table's slot
/// beside the count, so that counting costs one access to memory and not one for each level of the map. Not
/// thread-safe.
class SeenKeys {
public:
    /// Adds to the count of a key that was inserted before.
    /// @param key  any.
    /// @return false if it was not.
    bool Count(std::string_view key, std::uint32_t count);
    /// @param key    ASCII without a NUL.
    /// @param entry  has that key, is not here yet, and stays where it is until Clear.
    void Insert(std::string_view key, const ConnMetric &entry);
    /// Adds what was counted here to the entries.
    void Settle();
    /// Forgets all entries and gives the memory back.
    void Clear();

private:
    /// Fills a cache line, together with the eight bytes that the table adds.
    struct Record {
        const ConnMetric *entry;
        std::uint32_t hash;
        mutable std::uint32_t count;  ///< Not yet in the entry.
        std::uint8_t length;          ///< Of the key, or kLonger.
        char head[39];                ///< The beginning of the key; the rest is in the entry alone.
    };
    static_assert(sizeof(Record) == 56);
    static constexpr std::uint8_t kLonger = 0xFF;  ///< The key has more characters than the head.
    struct HashedKey {
        std::string_view text;
        std::uint32_t hash;
    };
    struct HashOf {
        std::size_t operator()(const Record &record) const { return record.hash; }
    };
    struct SameKey {
        using is_transparent = void;
        bool operator()(const Record &left, const Record &right) const { return left.entry == right.entry; }
        bool operator()(const Record &record, const HashedKey &key) const {
            return record.hash == key.hash && Has(record, key.text);
        }
    };
    using Records = tsl::robin_set<Record, HashOf, SameKey>;

    [[nodiscard]] static bool Has(const Record &record, std::string_view key);

    Records m_records;
};
