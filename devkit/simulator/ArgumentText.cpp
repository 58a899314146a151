#include "ArgumentText.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <string_view>

namespace Simulator {

namespace {

constexpr std::size_t kLongestText = 260;

bool IsNumber(const void *text) {
    return reinterpret_cast<std::uintptr_t>(text) < 0x10000;
}

void AppendNumber(std::string &to, const void *text) {
    if (text == nullptr)
        to += "null";
    else
        to += "#" + std::to_string(reinterpret_cast<std::uintptr_t>(text));
}

}  // namespace

std::string Utf8(std::wstring_view text) {
    const int length = static_cast<int>(text.size());
    const int size = WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string narrow(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text.data(), length, narrow.data(), size, nullptr, nullptr);
    return narrow;
}

void AppendText(std::string &to, const wchar_t *text) {
    if (IsNumber(text))
        return AppendNumber(to, text);
    to += '"' + Utf8({text, wcsnlen(text, kLongestText)}) + '"';
}

void AppendText(std::string &to, const char *text) {
    if (IsNumber(text))
        return AppendNumber(to, text);
    to += '"';
    to.append(text, strnlen(text, kLongestText));
    to += '"';
}

void AppendKey(std::string &to, HKEY key) {
    static const struct {
        HKEY key;
        const char *name;
    } predefined[] = {{HKEY_CLASSES_ROOT, "HKEY_CLASSES_ROOT"},
                      {HKEY_CURRENT_USER, "HKEY_CURRENT_USER"},
                      {HKEY_LOCAL_MACHINE, "HKEY_LOCAL_MACHINE"},
                      {HKEY_USERS, "HKEY_USERS"},
                      {HKEY_PERFORMANCE_DATA, "HKEY_PERFORMANCE_DATA"}};
    for (const auto &entry : predefined) {
        if (entry.key == key) {
            to += entry.name;
            return;
        }
    }
    AppendPointer(to, key);
}

void AppendPointer(std::string &to, const void *pointer) {
    if (pointer == nullptr) {
        to += "null";
        return;
    }
    constexpr char digits[] = "0123456789abcdef";
    std::string reversed;
    for (auto value = reinterpret_cast<std::uintptr_t>(pointer); value != 0; value >>= 4)
        reversed += digits[value & 15];
    to += "0x";
    to.append(reversed.rbegin(), reversed.rend());
}

void AppendGuid(std::string &to, const GUID &guid) {
    const BYTE *const end = guid.Data4;
    char text[39];
    std::snprintf(text, sizeof text, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", guid.Data1, guid.Data2,
                  guid.Data3, end[0], end[1], end[2], end[3], end[4], end[5], end[6], end[7]);
    to += text;
}

}  // namespace Simulator
