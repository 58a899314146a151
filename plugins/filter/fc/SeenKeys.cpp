#include "SeenKeys.h"

#include <algorithm>
#include <cstring>

#include "KeyHash.h"

namespace {

constexpr std::size_t kFirstRecords = 64;
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

HashedKey::HashedKey(std::string_view text) : m_text(text), m_hash(HashKey(text)) {}

bool SeenKeys::Has(const Record &record, std::string_view key) {
    if (record.length != key.size())
        return false;
    const std::size_t inHead = std::min(key.size(), sizeof(record.head));
    if (!SameBytes(record.head, key.data(), inHead))
        return false;
    return inHead == key.size() || SameCharacters(record.entry->first.wx_str() + inHead, key.substr(inHead));
}

bool SeenKeys::Count(const HashedKey &key, std::uint32_t count) {
    const auto slot = m_slots.find(key, key.Hash());
    if (slot == m_slots.end())
        return false;
    m_records[slot->record].count += count;
    return true;
}

void SeenKeys::Insert(const HashedKey &key, Entry &entry) {
    if (m_records.size() == m_records.capacity())
        m_records.reserve(std::clamp(m_records.size() * 2, kFirstRecords, kMaxConnMetricKeys));
    Record &record = m_records.emplace_back(Record{&entry, 0, static_cast<std::uint32_t>(key.Text().size()), {}});
    std::memcpy(record.head, key.Text().data(), std::min(key.Text().size(), sizeof(record.head)));
    m_slots.insert({key.Hash(), static_cast<std::uint32_t>(m_records.size() - 1)});
}

void SeenKeys::Settle() {
    for (Record &record : m_records) {
        record.entry->second.count += record.count;
        record.count = 0;
    }
}

void SeenKeys::Clear() {
    EmptySlots().swap(m_slots);
    Records().swap(m_records);
}
