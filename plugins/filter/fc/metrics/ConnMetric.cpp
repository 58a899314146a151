#include "ConnMetric.h"

ConnMetric::ConnMetric(const ConnMetricText &key, const ConnMetricText &text, std::uint32_t seen)
    : count(seen), m_keyLength(LengthOfMetricText(key)) {
    if (IsNarrowMetricText(key) && IsNarrowMetricText(text))
        m_keyAndText = JoinMetricTexts<char>(key, text);
    else
        m_keyAndText = JoinMetricTexts<wchar_t>(key, text);
}

ConnMetricText ConnMetric::Key() const {
    if (const auto *const narrow = std::get_if<std::string>(&m_keyAndText))
        return std::string_view(*narrow).substr(0, m_keyLength);
    return std::wstring_view(*std::get_if<std::wstring>(&m_keyAndText)).substr(0, m_keyLength);
}

ConnMetricText ConnMetric::Text() const {
    if (const auto *const narrow = std::get_if<std::string>(&m_keyAndText))
        return std::string_view(*narrow).substr(m_keyLength);
    return std::wstring_view(*std::get_if<std::wstring>(&m_keyAndText)).substr(m_keyLength);
}
