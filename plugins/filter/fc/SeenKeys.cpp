#include "SeenKeys.h"

#include <cstring>

namespace {

constexpr std::size_t kFirstSlots = 64;

std::uint64_t Mix(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15U;  // 2 to the power of 64 by the golden ratio, odd
    return hash ^ (hash >> 32);
}

/// Not zero where one of the word's eight bytes is a NUL or above 0x7F.
std::uint64_t OddBytes(std::uint64_t word) {
    return ((word - 0x0101010101010101U) | word) & 0x8080808080808080U;
}

}  // namespace

PlainKey::PlainKey(std::string_view text) : m_text(text), m_hash(text.size()), m_plain(true) {
    std::uint64_t odd = 0;
    const char *from = text.data();
    std::size_t left = text.size();
    for (; left >= sizeof(std::uint64_t); from += sizeof(std::uint64_t), left -= sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, from, sizeof word);
        odd |= OddBytes(word);
        m_hash = Mix(m_hash, word);
    }
    std::uint64_t last = 0x0101010101010101U;  // neither NUL nor above 0x7F where the text has ended
    std::memcpy(&last, from, left);
    odd |= OddBytes(last);
    m_hash = Mix(m_hash, last);
    m_plain = odd == 0;
}

bool PlainKey::Equals(const wxString &wide) const {
    if (wide.length() != m_text.size())
        return false;
    const wchar_t *const characters = wide.wx_str();
    unsigned difference = 0;
    for (std::size_t i = 0; i < m_text.size(); ++i)
        difference |= static_cast<unsigned>(characters[i]) ^ static_cast<unsigned char>(m_text[i]);
    return difference == 0;
}

SeenKeys::Entry *SeenKeys::Find(const PlainKey &key) const {
    if (m_slots.empty())
        return nullptr;
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t i = key.Hash() & mask; m_slots[i].entry; i = (i + 1) & mask)
        if (m_slots[i].hash == key.Hash() && key.Equals(m_slots[i].entry->first))
            return m_slots[i].entry;
    return nullptr;
}

void SeenKeys::Insert(const PlainKey &key, Entry &entry) {
    if ((m_used + 1) * 4 > m_slots.size() * 3)
        Grow();
    Place({key.Hash(), &entry});
    ++m_used;
}

void SeenKeys::Place(const Slot &slot) {
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = slot.hash & mask;
    while (m_slots[i].entry)
        i = (i + 1) & mask;
    m_slots[i] = slot;
}

void SeenKeys::Grow() {
    const std::vector<Slot> old = std::move(m_slots);
    m_slots.assign(old.empty() ? kFirstSlots : old.size() * 2, {});
    for (const Slot &slot : old)
        if (slot.entry)
            Place(slot);
}

void SeenKeys::Clear() {
    m_slots = {};
    m_used = 0;
}
