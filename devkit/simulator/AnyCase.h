// Compares names case-insensitively, as the system does.
#pragma once

#include <algorithm>
#include <cwctype>
#include <string>

#include <windows.h>

namespace Simulator {

/// Whether they certainly differ, which most names do at their ends.
[[nodiscard]] inline bool DifferInPlainLetters(const std::wstring &a, const std::wstring &b) {
    constexpr wchar_t plain = 0x80;
    constexpr wchar_t caseBit = 0x20;
    return !std::equal(a.rbegin(), a.rend(), b.rbegin(), b.rend(), [](wchar_t one, wchar_t other) {
        return one >= plain || other >= plain || (one | caseBit) == (other | caseBit);
    });
}

[[nodiscard]] inline bool SameInAnyCase(const std::wstring &a, const std::wstring &b) {
    return !DifferInPlainLetters(a, b) && CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

/// A case-insensitive map order.
struct LessInAnyCase {
    bool operator()(const std::wstring &a, const std::wstring &b) const {
        return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    }
};

/// A character of a path for comparisons: slashes count as backslashes.
[[nodiscard]] inline wchar_t PathCharacter(wchar_t c) {
    return c == L'/' ? L'\\' : static_cast<wchar_t>(std::towlower(c));
}

}  // namespace Simulator
