#include "Utf8.h"

namespace VtaCore {
namespace {

constexpr char32_t kFirstSupplementary = 0x10000;
constexpr char32_t kLastCodePoint = 0x10FFFF;
constexpr char32_t kReplacement = 0xFFFD;

struct Decoded {
    char32_t code;
    std::size_t length;
};

bool IsHighSurrogate(char32_t unit) {
    return unit >= 0xD800 && unit <= 0xDBFF;
}

bool IsLowSurrogate(char32_t unit) {
    return unit >= 0xDC00 && unit <= 0xDFFF;
}

void AppendUtf8(std::string &bytes, char32_t code) {
    const auto tail = [&](unsigned shift) { bytes += static_cast<char>(0x80 | ((code >> shift) & 0x3F)); };
    if (code != 0 && code < 0x80) {
        bytes += static_cast<char>(code);
    } else if (code < 0x800) {
        bytes += static_cast<char>(0xC0 | (code >> 6));
        tail(0);
    } else if (code < kFirstSupplementary) {
        bytes += static_cast<char>(0xE0 | (code >> 12));
        tail(6);
        tail(0);
    } else {
        bytes += static_cast<char>(0xF0 | (code >> 18));
        tail(12);
        tail(6);
        tail(0);
    }
}

std::size_t SequenceLength(unsigned char lead) {
    if (lead < 0x80)
        return 1;
    if ((lead & 0xE0) == 0xC0)
        return 2;
    if ((lead & 0xF0) == 0xE0)
        return 3;
    return (lead & 0xF8) == 0xF0 ? 4 : 0;
}

/// The first character of `bytes`, which is not empty.
Decoded DecodeFirst(std::string_view bytes) {
    constexpr Decoded kBroken{kReplacement, 1};
    const auto lead = static_cast<unsigned char>(bytes[0]);
    const std::size_t length = SequenceLength(lead);
    if (length == 0 || length > bytes.size())
        return kBroken;
    char32_t code = length == 1 ? lead : lead & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        if ((byte & 0xC0) != 0x80)
            return kBroken;
        code = (code << 6) | (byte & 0x3Fu);
    }
    return code <= kLastCodePoint ? Decoded{code, length} : kBroken;
}

}  // namespace

std::string ToUtf8(const wxString &text) {
    const std::wstring_view units(text.wc_str(), text.length());
    std::string bytes;
    bytes.reserve(units.size());
    for (std::size_t i = 0; i < units.size(); ++i) {
        char32_t code = units[i];
        if (IsHighSurrogate(code) && i + 1 < units.size() && IsLowSurrogate(units[i + 1])) {
            code = kFirstSupplementary + ((code - 0xD800) << 10) + (units[i + 1] - 0xDC00u);
            ++i;
        }
        AppendUtf8(bytes, code);
    }
    return bytes;
}

wxString FromUtf8(std::string_view bytes) {
    std::wstring units;
    units.reserve(bytes.size());
    while (!bytes.empty()) {
        const Decoded first = DecodeFirst(bytes);
        bytes.remove_prefix(first.length);
        if (first.code < kFirstSupplementary) {
            units += static_cast<wchar_t>(first.code);
        } else {
            units += static_cast<wchar_t>(0xD800 + ((first.code - kFirstSupplementary) >> 10));
            units += static_cast<wchar_t>(0xDC00 + ((first.code - kFirstSupplementary) & 0x3FF));
        }
    }
    return {units.data(), units.size()};
}

}  // namespace VtaCore
