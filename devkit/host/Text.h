// UTF-8, which scripts and the console use, and UTF-16, which Windows uses.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

/// Invalid UTF-8 becomes U+FFFD.
std::wstring ToWide(std::string_view utf8);
std::string ToUtf8(const std::wstring &wide);
inline std::string ToUtf8(const wxString &text) {
    return ToUtf8(text.ToStdWstring());
}
