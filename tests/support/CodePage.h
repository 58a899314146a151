// The code page of this run, which its locale decides on, and texts for tests that hold in any.
#pragma once

#include <string>
#include <vector>

/// A text as a library hands it over, and what a reader sees of it.
struct CodePageText {
    std::string narrow;
    std::string utf8;
};

/// Whether the bytes are a text in the code page.
bool IsInCodePage(const std::string &bytes);

/// A character beyond ASCII that the code page has.
CodePageText CharacterInCodePage();

/// All bytes that are a character by themselves, but for NUL.
std::string CharactersOfOneByte();

/// Texts that are not in the code page, in another encoding or cut within a character: for the code pages 932 and
/// 65001. In others every byte is a character, as a rule.
std::vector<CodePageText> TextsOutsideCodePage();

/// Notes the code page in the results of the run.
/// @return false, and says so, if FC_CODE_PAGE names another one: such a run must end without results.
bool HasExpectedCodePage();
