// Texts as arguments of functions that take wide ones.
#pragma once

#include <wx/string.h>

/// For an argument of a wide printf, such as DbgPrint. The result is valid as long as the text.
inline const wchar_t *Wide(const wxString &text) {
    return text.wc_str();
}
