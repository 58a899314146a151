#include "SeenKeys.h"

#include <algorithm>
#include <cstring>

#include "KeyHash.h"

namespace {

constexpr float kMaxLoad = 0.7F;  // slots are large: fuller than the table is by itself
constexpr std::size_t kWord = sizeof(std::uint64_t);

std::uint64_t LoadSeenKeyWord(const char *from) {
    std::uint64_t word = 0;
    std::memcpy(&word, from, kWord);
    return word;
}

/// The last eight bytes of a text; of a shorter one all, filled up with ones.
std::uint64_t LoadLastSeenKeyWord(const char *text, std::size_t bytes) {
    if (bytes >= kWord)
        return LoadSeenKeyWord(text + bytes - kWord);
    std::uint64_t word = 0x0101010101010101U;
    for (std::size_t i = 0; i < bytes; ++i)
        word = word << 8 | static_cast<unsigned char>(text[i]);
    return word;
}

bool SameSeenKeyBytes(const char *left, const char *right, std::size_t bytes) {
    for (std::size_t i = 0; i + kWord < bytes; i += kWord)
        if (LoadSeenKeyWord(left + i) != LoadSeenKeyWord(right + i))
            return false;
    return LoadLastSeenKeyWord(left, bytes) == LoadLastSeenKeyWord(right, bytes);
}

}  // namespace

[[gnu::always_inline]] inline bool SeenKeys::Has(const Record &record, std::string_view key) {
    if (key.size() <= sizeof(record.head))
        return record.length == key.size() && SameSeenKeyBytes(record.head, key.data(), key.size());
    return record.length == kLonger && SameSeenKeyBytes(record.head, key.data(), sizeof(record.head)) &&
           CompareMetricTexts(record.entry->Key(), key) == 0;
}

bool SeenKeys::Count(std::string_view key, std::uint32_t count) {
    const HashedKey hashed{key, HashKey(key)};
    const auto record = m_records.find(hashed, hashed.hash);
    if (record == m_records.end())
        return false;
    record->count += count;
    return true;
}

void SeenKeys::Insert(std::string_view key, const ConnMetric &entry) {
    Record record{&entry, HashKey(key), 0, kLonger, {}};
    if (key.size() <= sizeof(record.head))
        record.length = static_cast<std::uint8_t>(key.size());
    std::memcpy(record.head, key.data(), std::min(key.size(), sizeof(record.head)));
    m_records.max_load_factor(kMaxLoad);
    m_records.insert(record);
}

void SeenKeys::Settle() {
    for (const Record &record : m_records) {
        record.entry->count += record.count;
        record.count = 0;
    }
}

void SeenKeys::Clear() {
    Records().swap(m_records);
}
