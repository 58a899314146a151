// Four numbers separated by dots, as in versions and addresses.
#pragma once

#include <array>
#include <charconv>
#include <concepts>
#include <cstddef>
#include <optional>
#include <string_view>
#include <system_error>

/// Reads a text such as "2.0.0.0"; empty for any other text, and if a number is too large.
template <std::unsigned_integral Number>
std::optional<std::array<Number, 4>> ParseFourNumbers(std::string_view text) {
    std::array<Number, 4> numbers{};
    const char *at = text.data();
    const char *const end = at + text.size();
    for (std::size_t i = 0; i < numbers.size(); ++i) {
        if (i > 0) {
            if (at == end || *at != '.')
                return std::nullopt;
            ++at;
        }
        const std::from_chars_result read = std::from_chars(at, end, numbers[i]);
        if (read.ec != std::errc())
            return std::nullopt;
        at = read.ptr;
    }
    return at == end ? std::optional(numbers) : std::nullopt;
}
