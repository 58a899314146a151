// Compares names as the system does, which knows no case.
#pragma once

#include <cwctype>
#include <string>

#include <windows.h>

namespace Simulator {

[[nodiscard]] inline bool SameInAnyCase(const std::wstring &a, const std::wstring &b) {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

/// The order of a map whose keys know no case.
struct LessInAnyCase {
    bool operator()(const std::wstring &a, const std::wstring &b) const {
        return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
    }
};

/// A character of a path, as paths are compared: slashes count as backslashes.
[[nodiscard]] inline wchar_t PathCharacter(wchar_t c) {
    return c == L'/' ? L'\\' : static_cast<wchar_t>(std::towlower(c));
}

}  // namespace Simulator
