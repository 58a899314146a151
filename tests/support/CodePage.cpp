#include "CodePage.h"

#include <array>
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>
#include <windows.h>

namespace {

class CodePageInResults : public testing::Environment {
    void SetUp() override { testing::Test::RecordProperty("code_page", std::to_string(GetACP())); }
};

/// @return empty if the code page lacks a character.
std::string Narrowed(UINT codePage, const std::wstring &text) {
    std::array<char, 16> narrow{};
    BOOL replaced = FALSE;
    const bool isUtf8 = codePage == CP_UTF8 || GetACP() == CP_UTF8;  // for which Windows refuses both
    const int bytes = WideCharToMultiByte(codePage, isUtf8 ? 0 : WC_NO_BEST_FIT_CHARS, text.c_str(), -1, narrow.data(),
                                          static_cast<int>(narrow.size()), nullptr, isUtf8 ? nullptr : &replaced);
    return bytes == 0 || replaced != FALSE ? "" : narrow.data();
}

/// @return empty if the bytes are not a text in the code page.
std::wstring Widened(const std::string &bytes) {
    std::array<wchar_t, 64> wide{};
    const int characters = MultiByteToWideChar(CP_ACP, MB_ERR_INVALID_CHARS, bytes.c_str(), -1, wide.data(),
                                               static_cast<int>(wide.size()));
    return characters == 0 ? L"" : wide.data();
}

}  // namespace

bool IsInCodePage(const std::string &bytes) {
    return bytes.empty() || !Widened(bytes).empty();
}

CodePageText CharacterInCodePage() {
    for (wchar_t character = L'\u00C0'; character < L'\xD800'; ++character)
        if (const std::string narrow = Narrowed(CP_ACP, {character}); !narrow.empty())
            return {narrow, Narrowed(CP_UTF8, {character})};
    return {};
}

std::string CharactersOfOneByte() {
    std::string all;
    for (int code = 1; code <= 0xFF; ++code) {
        const std::string character(1, static_cast<char>(code));
        if (Narrowed(CP_ACP, Widened(character)) == character)
            all += character;
    }
    return all;
}

std::vector<CodePageText> TextsOutsideCodePage() {
    switch (GetACP()) {
        case 932:
            return {{"\x93\xFA\x96", "\u65E5\u30FB"}, {"\xE4\xB8\x9C", "\u4E1C"}};
        case CP_UTF8:
            return {{"ger\xE4t", "ger\uFFFDt"}, {"\xE6\x97\xA5\xE6", "\u65E5\uFFFD"}};
        default:
            return {};
    }
}

bool HasExpectedCodePage() {
    const std::string codePage = std::to_string(GetACP());
    const char *const expected = std::getenv("FC_CODE_PAGE");
    if (expected != nullptr && codePage != expected) {
        std::cerr << "FC_CODE_PAGE is " << expected << ", but this run has the code page " << codePage
                  << ": its locale is missing, or has another one\n";
        return false;
    }
    testing::AddGlobalTestEnvironment(new CodePageInResults);  // GoogleTest's from here on
    return true;
}
