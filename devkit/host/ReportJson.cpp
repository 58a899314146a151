#include "ReportJson.h"

#include <charconv>
#include <cmath>
#include <iterator>

std::string Quoted(std::string_view text) {
    constexpr std::string_view unsafe = "\"\\<>&'\x7F";
    std::string quoted = "\"";
    for (const char character : text) {
        if (static_cast<unsigned char>(character) >= 0x20 && unsafe.find(character) == std::string_view::npos) {
            quoted += character;
            continue;
        }
        constexpr std::string_view digits = "0123456789abcdef";
        const auto code = static_cast<unsigned char>(character);
        quoted += "\\u00";
        quoted += digits[code >> 4U];
        quoted += digits[code & 0xFU];
    }
    return quoted + "\"";
}

std::string Number(double value) {
    if (!std::isfinite(value))
        return "null";
    constexpr double exact = 1e12;  // three decimals are not distinguishable beyond
    if (std::fabs(value) < exact)
        value = std::round(value * 1000) / 1000;
    char text[32];
    const std::to_chars_result end = std::to_chars(std::begin(text), std::end(text), value);
    return {text, end.ptr};
}

std::string Flag(const char *name, bool flag) {
    return "\"" + std::string(name) + (flag ? "\":true" : "\":false");
}

std::string OptionalText(const char *name, const std::optional<std::string> &text) {
    return "\"" + std::string(name) + "\":" + (text ? Quoted(*text) : "null");
}
