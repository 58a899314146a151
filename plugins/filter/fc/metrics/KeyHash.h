// A hash of keys that whoever chooses the keys can't foresee.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#define XXH_INLINE_ALL
#include <xxhash.h>

/// The whole secret of the hash, different in each process: random bytes, which are drawn at the first call. Any
/// thread.
[[nodiscard]] std::span<const std::byte> KeyHashSecret();

/// Equal for equal keys, and different in each process. Any thread. Inlined, since counting a known key
/// takes little more than this.
[[nodiscard, gnu::always_inline]] inline std::uint32_t HashKey(std::string_view key) {
    const std::span<const std::byte> secret = KeyHashSecret();
    return static_cast<std::uint32_t>(XXH3_64bits_withSecret(key.data(), key.size(), secret.data(), secret.size()));
}
