#include "SeenKeys.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr std::size_t kFirstSlots = 64;
constexpr std::size_t kWord = sizeof(std::uint64_t);

std::uint64_t LoadWord(const char *from) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, kWord);
    return word;
}

/// The last eight bytes of a text; of a shorter one all, filled up with ones.
std::uint64_t LoadLast(const char *text, std::size_t bytes) {
    if (bytes >= kWord)
        return LoadWord(text + bytes - kWord);
    std::uint64_t word = 0x0101010101010101U;
    for (std::size_t i = 0; i < bytes; ++i)
        word = word << 8 | static_cast<unsigned char>(text[i]);
    return word;
}

std::uint64_t Mix(std::uint64_t hash, std::uint64_t word) {
    hash = (hash ^ word) * 0x9E3779B97F4A7C15U;  // 2 to the power of 64 by the golden ratio, odd
    return hash ^ (hash >> 32);
}

/// Not zero where one of the word's eight bytes is a NUL or above 0x7F.
std::uint64_t OddBytes(std::uint64_t word) {
    return ((word - 0x0101010101010101U) | word) & 0x8080808080808080U;
}

bool SameBytes(const char *left, const char *right, std::size_t bytes) {
    for (std::size_t i = 0; i + kWord < bytes; i += kWord)
        if (LoadWord(left + i) != LoadWord(right + i))
            return false;
    return LoadLast(left, bytes) == LoadLast(right, bytes);
}

/// Whether the wide characters are the same ASCII characters as the bytes.
bool SameCharacters(const wchar_t *wide, std::string_view narrow) {
    unsigned difference = 0;
    for (std::size_t i = 0; i < narrow.size(); ++i)
        difference |= static_cast<unsigned>(wide[i]) ^ static_cast<unsigned char>(narrow[i]);
    return difference == 0;
}

}  // namespace

PlainKey::PlainKey(std::string_view text) : m_text(text) {
    std::uint64_t odd = 0;
    std::uint64_t hash = text.size();
    const auto take = [&odd, &hash](std::uint64_t word) {
        odd |= OddBytes(word);
        hash = Mix(hash, word);
    };
    for (std::size_t i = 0; i + kWord < text.size(); i += kWord)
        take(LoadWord(text.data() + i));
    take(LoadLast(text.data(), text.size()));
    m_hash = static_cast<std::uint32_t>(hash);
    m_plain = odd == 0;
}

bool SeenKeys::Has(const Record &record, std::string_view key) {
    if (record.length != key.size())
        return false;
    const std::size_t inHead = std::min(key.size(), sizeof(record.head));
    if (!SameBytes(record.head, key.data(), inHead))
        return false;
    return inHead == key.size() || SameCharacters(record.entry->first.wx_str() + inHead, key.substr(inHead));
}

bool SeenKeys::Count(const PlainKey &key, std::uint32_t count) {
    if (m_slots.empty())
        return false;
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t i = key.Hash() & mask; m_slots[i].record != 0; i = (i + 1) & mask) {
        if (m_slots[i].hash != key.Hash())
            continue;
        Record &record = m_records[m_slots[i].record - 1];
        if (Has(record, key.Text())) {
            record.count += count;
            return true;
        }
    }
    return false;
}

void SeenKeys::Insert(const PlainKey &key, Entry &entry) {
    if ((m_records.size() + 1) * 4 > m_slots.size() * 3)
        Grow();
    if (m_records.size() == m_records.capacity())
        m_records.reserve(std::clamp(m_records.size() * 2, kFirstSlots, kMaxConnMetricKeys));
    Record &record = m_records.emplace_back(Record{&entry, 0, static_cast<std::uint32_t>(key.Text().size()), {}});
    std::memcpy(record.head, key.Text().data(), std::min(key.Text().size(), sizeof(record.head)));
    Place({key.Hash(), static_cast<std::uint32_t>(m_records.size())});
}

void SeenKeys::Place(const Slot &slot) {
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = slot.hash & mask;
    while (m_slots[i].record != 0)
        i = (i + 1) & mask;
    m_slots[i] = slot;
}

void SeenKeys::Grow() {
    const std::vector<Slot> old = std::move(m_slots);
    m_slots.assign(old.empty() ? kFirstSlots : old.size() * 2, {});
    for (const Slot &slot : old)
        if (slot.record != 0)
            Place(slot);
}

void SeenKeys::Settle() {
    for (Record &record : m_records) {
        record.entry->second.count += record.count;
        record.count = 0;
    }
}

void SeenKeys::Clear() {
    std::vector<Slot>().swap(m_slots);
    std::vector<Record>().swap(m_records);
}
