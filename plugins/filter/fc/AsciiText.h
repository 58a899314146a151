// Texts of plain ASCII are the same in every code page that Windows uses for a locale, so they need no
// conversion between narrow and wide. The loops have no early exit, so that the compiler can use vector
// instructions.
#pragma once

#include <cstddef>
#include <string_view>

#include <wx/string.h>

/// ASCII throughout, and no NUL.
inline bool IsPlainAscii(std::string_view text) {
    unsigned odd = 0;
    for (const char character : text) {
        const unsigned byte = static_cast<unsigned char>(character);
        odd |= (byte - 1) | byte;  // bit 7 or more of one of them: NUL, or above 0x7F
    }
    return odd < 0x80;
}

/// @param text  ASCII only.
inline wxString WidenAscii(std::string_view text) {
    constexpr std::size_t maxOnStack = 512;
    if (text.size() > maxOnStack)
        return wxString(std::wstring(text.begin(), text.end()));
    wchar_t wide[maxOnStack];
    for (std::size_t i = 0; i < text.size(); ++i)
        wide[i] = static_cast<unsigned char>(text[i]);
    return wxString(wide, text.size());
}
