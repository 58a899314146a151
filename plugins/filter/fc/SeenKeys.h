// A shortcut from a key as Lua holds it, in bytes, to the entry of an ordered map, and the counting for
// entries that are found that way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "ConnMetricsMap.h"

/// A key with its hash. A key of ASCII characters without a NUL is the same text in every locale, so
/// that its entry can be found without a conversion.
class PlainKey {
public:
    explicit PlainKey(std::string_view text);

    /// False where the text holds other characters: such a key is not for SeenKeys.
    [[nodiscard]] bool IsPlain() const { return m_plain; }
    [[nodiscard]] std::uint32_t Hash() const { return m_hash; }
    [[nodiscard]] std::string_view Text() const { return m_text; }

private:
    std::string_view m_text;
    std::uint32_t m_hash = 0;
    bool m_plain = false;
};

/// A hash table with open addressing. What it needs to know of a key, most keys whole, lies in one cache
/// line beside the count, so that counting costs two accesses to memory and not one for each level of
/// the map. Not thread-safe.
class SeenKeys {
public:
    using Entry = ConnMetricsMap::value_type;

    /// Adds to the count of a key that was inserted before.
    /// @return false if it was not.
    bool Count(const PlainKey &key, std::uint32_t count);
    /// @param entry  has that key, is not here yet, and stays where it is until Clear.
    void Insert(const PlainKey &key, Entry &entry);
    /// Adds what was counted here to the entries.
    void Settle();
    /// Forgets all entries and gives the memory back.
    void Clear();

private:
    struct alignas(64) Record {
        Entry *entry;
        std::uint32_t count;  ///< Not yet in the entry.
        std::uint32_t length;
        char head[48];  ///< The beginning of the key; the rest is in the entry alone.
    };
    static_assert(sizeof(Record) == 64);
    struct Slot {
        std::uint32_t hash;
        std::uint32_t record;  ///< Number of the record, from 1; 0 in a free slot.
    };
    [[nodiscard]] static bool Has(const Record &record, std::string_view key);
    void Place(const Slot &slot);
    void Grow();

    std::vector<Slot> m_slots;  ///< A power of two in number, at most three quarters in use.
    std::vector<Record> m_records;
};
