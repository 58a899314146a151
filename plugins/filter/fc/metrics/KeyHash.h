// A hash of keys that whoever chooses the keys can't foresee.
#pragma once

#include <cstdint>
#include <string_view>

/// Equal for equal keys, and different in each process: it is keyed with random bytes, which are drawn at the first
/// call. Any thread.
[[nodiscard]] std::uint32_t HashKey(std::string_view key);

/// A key with its hash.
class KeyWithHash {
public:
    explicit KeyWithHash(std::string_view text);

    [[nodiscard]] std::uint32_t Hash() const { return m_hash; }
    [[nodiscard]] std::string_view Text() const { return m_text; }

private:
    std::string_view m_text;
    std::uint32_t m_hash;
};
