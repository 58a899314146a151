// A shortcut from a key as Lua holds it, in bytes, to the entry of an ordered map, and the counting for
// entries that are found that way.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include <tsl/robin_set.h>

#include "ConnMetricsMap.h"

/// A key with its hash.
class HashedKey {
public:
    explicit HashedKey(std::string_view text);

    [[nodiscard]] std::uint32_t Hash() const { return m_hash; }
    [[nodiscard]] std::string_view Text() const { return m_text; }

private:
    std::string_view m_text;
    std::uint32_t m_hash;
};

/// A hash table for keys of ASCII characters without a NUL. They are the same text in every locale, so that their
/// entries can be found without a conversion. What it needs to know of a key, most keys whole, lies in one cache line
/// beside the count, so that counting costs two accesses to memory and not one for each level of the map. Not
/// thread-safe.
class SeenKeys {
public:
    using Entry = ConnMetricsMap::value_type;

    SeenKeys() : m_slots(EmptySlots()) {}
    SeenKeys(const SeenKeys &) = delete;
    SeenKeys &operator=(const SeenKeys &) = delete;

    /// Adds to the count of a key that was inserted before.
    /// @param key  any.
    /// @return false if it was not.
    bool Count(const HashedKey &key, std::uint32_t count);
    /// @param key    ASCII without a NUL.
    /// @param entry  has that key, is not here yet, and stays where it is until Clear.
    void Insert(const HashedKey &key, Entry &entry);
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
    using Records = std::vector<Record>;
    struct Slot {
        std::uint32_t hash;
        std::uint32_t record;  ///< Its place among the records.
    };
    struct HashOfSlot {
        std::size_t operator()(const Slot &slot) const { return slot.hash; }
        std::size_t operator()(const HashedKey &key) const { return key.Hash(); }
    };
    struct SameKey {
        using is_transparent = void;
        const Records *records;

        bool operator()(const Slot &left, const Slot &right) const { return left.record == right.record; }
        bool operator()(const Slot &slot, const HashedKey &key) const {
            return slot.hash == key.Hash() && Has((*records)[slot.record], key.Text());
        }
        bool operator()(const HashedKey &key, const Slot &slot) const { return (*this)(slot, key); }
    };
    using Slots = tsl::robin_set<Slot, HashOfSlot, SameKey>;

    [[nodiscard]] static bool Has(const Record &record, std::string_view key);
    [[nodiscard]] Slots EmptySlots() const { return Slots(0, HashOfSlot(), SameKey{&m_records}); }

    Records m_records;
    Slots m_slots;
};
