// One kind of connections, and how often it was seen.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <variant>

#include "ConnMetricText.h"

/// A key, what is known of it, and how often it was seen. Key and text are one block of memory: a drain frees
/// thousands of them.
class ConnMetric {
public:
    /// @param text  lines of name, tab, value; opaque until they become a row.
    ConnMetric(const ConnMetricText &key, const ConnMetricText &text, std::uint32_t seen);

    [[nodiscard]] ConnMetricText Key() const;
    [[nodiscard]] ConnMetricText Text() const;

    mutable std::uint32_t count;  ///< Wraps. No part of the order.

private:
    std::size_t m_keyLength;
    std::variant<std::string, std::wstring> m_keyAndText;  ///< Bytes if both are ASCII.
};
