// A hash of keys that whoever chooses the keys can't foresee.
#pragma once

#include <cstdint>
#include <string_view>

/// Equal for equal keys, and different in each process: it is keyed with random bytes, which are drawn at the first
/// call. Any thread.
[[nodiscard]] std::uint32_t HashKey(std::string_view key);
