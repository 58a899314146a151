#include "StagingMetrics.h"

#include <wx/string.h>

namespace {

/// ASCII throughout, and no NUL: the same text in every code page that Windows uses for a locale. The loop has no early
/// exit, so that the compiler can use vector instructions.
bool IsPlainStagingText(std::string_view text) {
    unsigned odd = 0;
    for (const char character : text) {
        const unsigned byte = static_cast<unsigned char>(character);
        odd |= (byte - 1) | byte;  // bit 7 or more of one of them: NUL, or above 0x7F
    }
    return odd < 0x80;
}

/// Bytes that are ASCII as they are; other ones as what wxString makes of them up to the first NUL in the current
/// locale.
class StagingText {
public:
    explicit StagingText(std::string_view narrow) : m_narrow(narrow), m_isAscii(IsPlainStagingText(narrow)) {
        if (!m_isAscii)
            m_wide = wxString(narrow.data());
    }

    [[nodiscard]] bool IsAscii() const { return m_isAscii; }
    operator ConnMetricText() const {
        if (m_isAscii)
            return m_narrow;
        return std::wstring_view(m_wide.wx_str(), m_wide.length());
    }

private:
    std::string_view m_narrow;
    bool m_isAscii;
    wxString m_wide;
};

}  // namespace

void StagingMetrics::AddToMap(std::string_view key, std::string_view text, std::uint32_t count) {
    const StagingText kept(key);
    const auto place = m_entries.lower_bound<ConnMetricText>(kept);
    if (place != m_entries.end() && CompareMetricTexts(place->Key(), kept) == 0) {
        place->count += count;
        return;
    }
    // compat 14: drops a new key without a message when the map is full
    if (m_entries.size() >= kMaxConnMetricKeys)
        return;
    const auto entry = m_entries.emplace_hint(place, kept, StagingText(text), count);
    if (kept.IsAscii())
        m_seen.Insert(key, *entry);
}

void StagingMetrics::FoldInto(ConnMetricsMap &merged) {
    m_seen.Settle();
    FoldConnMetricsMap(m_entries, merged);
}

void StagingMetrics::Clear() {
    m_seen.Clear();
    m_entries.clear();
}
