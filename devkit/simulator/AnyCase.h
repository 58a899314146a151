// Compares names as the system does, which knows no case.
#pragma once

#include <string>

#include <windows.h>

namespace Simulator {

[[nodiscard]] inline bool SameInAnyCase(const std::wstring &a, const std::wstring &b) {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_EQUAL;
}

}  // namespace Simulator
