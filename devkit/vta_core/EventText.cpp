#include "EventText.h"

#include <optional>
#include <string_view>

namespace VtaCore {
namespace {

constexpr std::wstring_view kFlagsWidthsAndSizes = L"-+ #'0123456789.*$hlLqjztwI";

/// What a directive ending in this character prints; empty if no directive ends so.
std::optional<std::wstring_view> TextOfConversion(wchar_t conversion) {
    switch (conversion) {
        case L'%':
            return L"%";
        case L's':
        case L'S':
            return L"(null)";
        case L'c':
        case L'C':
        case L'n':
            return L"";
        default:
            if (std::wstring_view(L"diouxXeEfFgGaAp").find(conversion) != std::wstring_view::npos)
                return L"0";
            return std::nullopt;
    }
}

}  // namespace

wxString FormatWithoutArguments(const wxString &format) {
    const std::wstring_view input(format.wc_str(), format.length());
    std::wstring output;
    for (std::size_t at = 0; at < input.size(); ++at) {
        if (input[at] == L'%') {
            const std::size_t conversion = input.find_first_not_of(kFlagsWidthsAndSizes, at + 1);
            const auto text = conversion < input.size() ? TextOfConversion(input[conversion]) : std::nullopt;
            if (text) {
                output += *text;
                at = conversion;
                continue;
            }
        }
        output += input[at];
    }
    return {output.data(), output.size()};
}

}  // namespace VtaCore
