// Prints the arguments of a call for the journal: texts in quotes, numbers in decimal, pointers and handles
// in hexadecimal, the predefined registry keys by name, GUIDs as "{...}".
#pragma once

#include <string>
#include <string_view>
#include <type_traits>

#include <windows.h>

namespace Simulator {

/// UTF-8 of a wide text.
[[nodiscard]] std::string Utf8(std::wstring_view text);

/// Text arguments; a "text" below 64 KiB is a resource number and printed as #number.
void AppendText(std::string &to, const wchar_t *text);
void AppendText(std::string &to, const char *text);
void AppendKey(std::string &to, HKEY key);
void AppendPointer(std::string &to, const void *pointer);
void AppendGuid(std::string &to, const GUID &guid);

template <class T>
void AppendArgument(std::string &to, T argument) {
    if constexpr (std::is_same_v<T, const wchar_t *> || std::is_same_v<T, const char *>)
        AppendText(to, argument);
    else if constexpr (std::is_same_v<T, HKEY>)
        AppendKey(to, argument);
    else if constexpr (std::is_same_v<T, GUID>)
        AppendGuid(to, argument);
    else if constexpr (std::is_same_v<T, const GUID *>)
        argument == nullptr ? AppendPointer(to, nullptr) : AppendGuid(to, *argument);
    else if constexpr (std::is_pointer_v<T>)
        AppendPointer(to, reinterpret_cast<const void *>(argument));
    else if constexpr (std::is_integral_v<T>)
        to += std::to_string(argument);
    else if constexpr (std::is_enum_v<T>)
        to += std::to_string(static_cast<std::underlying_type_t<T>>(argument));
    else
        to += "{...}";
}

template <class... Args>
[[nodiscard]] std::string ArgumentText(Args... arguments) {
    std::string text;
    [[maybe_unused]] const auto append = [&text](auto argument) {
        if (!text.empty())
            text += ", ";
        AppendArgument(text, argument);
    };
    (append(arguments), ...);
    return text;
}

}  // namespace Simulator
