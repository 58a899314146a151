#include "Text.h"

#include <windows.h>

std::wstring ToWide(std::string_view utf8) {
    const int size = static_cast<int>(utf8.size());
    const int needed = MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, nullptr, 0);
    std::wstring wide(static_cast<std::size_t>(needed), L'\0');
    (void)MultiByteToWideChar(CP_UTF8, 0, utf8.data(), size, wide.data(), needed);
    return wide;
}

std::string ToUtf8(const std::wstring &wide) {
    const int size = static_cast<int>(wide.size());
    const int needed = WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, nullptr, 0, nullptr, nullptr);
    std::string utf8(static_cast<std::size_t>(needed), '\0');
    (void)WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), needed, nullptr, nullptr);
    return utf8;
}
