#include "StagingMetrics.h"

#include "AsciiText.h"

namespace {

/// What wxString makes of the bytes up to the first NUL in the current locale; ASCII needs no conversion.
ConnMetricText KeptText(std::string_view narrow) {
    if (IsPlainAscii(narrow))
        return std::string(narrow);
    return wxString(narrow.data());
}

}  // namespace

void StagingMetrics::Add(std::string_view key, std::string_view text, std::uint32_t count) {
    const HashedKey hashed(key);
    if (!m_seen.Count(hashed, count))
        AddToMap(hashed, text, count);
}

void StagingMetrics::AddToMap(const HashedKey &key, std::string_view text, std::uint32_t count) {
    const bool plain = IsPlainAscii(key.Text());
    wxString wide = plain ? WidenAscii(key.Text()) : wxString(key.Text().data());
    const auto place = m_entries.lower_bound(wide);
    if (place != m_entries.end() && place->first == wide) {
        place->second.count += count;
        return;
    }
    if (m_entries.size() >= kMaxConnMetricKeys)
        return;
    const auto entry = m_entries.emplace_hint(place, std::move(wide), ConnMetricValue{KeptText(text), count});
    if (plain)
        m_seen.Insert(key, *entry);
}

void StagingMetrics::FoldInto(ConnMetricsMap &merged) {
    m_seen.Settle();
    FoldConnMetrics(m_entries, merged);
}

void StagingMetrics::Clear() {
    m_seen.Clear();
    m_entries.clear();
}
