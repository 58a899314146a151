// A shortcut to the entries of an ordered map from a key as Lua holds it: bytes, not wide characters.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "ConnMetricsMap.h"

/// A key of ASCII characters without a NUL, with its hash. Such a key is the same text in every
/// locale, so that an entry can be found without a conversion.
class PlainKey {
public:
    explicit PlainKey(std::string_view text);

    /// False where the text holds other characters: the key must not be used then.
    [[nodiscard]] bool IsPlain() const { return m_plain; }
    [[nodiscard]] std::uint64_t Hash() const { return m_hash; }
    [[nodiscard]] bool Equals(const wxString &wide) const;

private:
    std::string_view m_text;
    std::uint64_t m_hash;
    bool m_plain;
};

/// A hash table with open addressing over entries that it does not own. Not thread-safe.
class SeenKeys {
public:
    using Entry = ConnMetricsMap::value_type;

    /// The entry with that key, or null.
    [[nodiscard]] Entry *Find(const PlainKey &key) const;
    /// @param entry  has that key, and is not in the table; it must stay where it is until Clear.
    void Insert(const PlainKey &key, Entry &entry);
    /// Forgets all entries and gives the memory back.
    void Clear();

private:
    struct Slot {
        std::uint64_t hash;
        Entry *entry;  ///< Null in a free slot.
    };
    void Place(const Slot &slot);
    void Grow();

    std::vector<Slot> m_slots;  ///< A power of two in number, at most three quarters in use.
    std::size_t m_used = 0;
};
