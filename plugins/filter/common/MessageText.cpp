#include "MessageText.h"

#include <cstring>
#include <string>

#include <windows.h>

namespace {

wxString MessageTextWithReplacements(const char *text) {
    std::wstring wide(std::strlen(text) + 1, L'\0');  // no code page makes two characters of one byte
    (void)MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), static_cast<int>(wide.size()));
    return wide.front() != L'\0' ? wxString(wide.c_str()) : wxString(text, wxConvISO8859_1);
}

}  // namespace

wxString TextForMessage(const char *text) {
    return wxString(text, wxConvWhateverWorks);
}

wxString LibraryTextForMessage(const char *text) {
    if (text == nullptr || *text == '\0')
        return {};
    wxString wide(text, wxConvLibc);
    if (wide.empty())
        wide = wxString::FromUTF8(text);
    return wide.empty() ? MessageTextWithReplacements(text) : wide;
}
