#include "StagingMetrics.h"

#include "AsciiText.h"

namespace {

/// What wxString makes of the bytes up to the first NUL in the current locale; ASCII needs no conversion.
wxString TextFromLocale(std::string_view narrow) {
    if (IsPlainAscii(narrow))
        return WidenAscii(narrow);
    return wxString(narrow.data());
}

/// As above; ASCII is kept as it is.
ConnMetricText KeptText(std::string_view narrow) {
    if (IsPlainAscii(narrow))
        return std::string(narrow);
    return wxString(narrow.data());
}

}  // namespace

void StagingMetrics::Add(std::string_view key, std::string_view text, std::uint32_t count) {
    const PlainKey plainKey(key);
    if (!plainKey.IsPlain() || !m_seen.Count(plainKey, count))
        AddToMap(key, text, count, plainKey);
}

void StagingMetrics::AddToMap(std::string_view key, std::string_view text, std::uint32_t count,
                              const PlainKey &plainKey) {
    wxString wide = TextFromLocale(key);
    const auto place = m_entries.lower_bound(wide);
    if (place != m_entries.end() && place->first == wide) {
        place->second.count += count;
        return;
    }
    if (m_entries.size() >= kMaxConnMetricKeys)
        return;
    const auto entry = m_entries.emplace_hint(place, std::move(wide), ConnMetricValue{KeptText(text), count});
    if (plainKey.IsPlain())
        m_seen.Insert(plainKey, *entry);
}

void StagingMetrics::FoldInto(ConnMetricsMap &merged) {
    m_seen.Settle();
    FoldConnMetrics(m_entries, merged);
}

void StagingMetrics::Clear() {
    m_seen.Clear();
    m_entries.clear();
}
