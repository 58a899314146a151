// The code page of this run, which its locale determines, and texts for tests that hold in any.
#pragma once

#include <string>
#include <vector>

/// A text as a library passes it, and what a reader sees of it.
struct CodePageText {
    std::string narrow;
    std::string utf8;
};

/// Whether the bytes are a text in the code page.
bool IsInCodePage(const std::string &bytes);

/// A non-ASCII character that the code page has.
CodePageText CharacterInCodePage();

/// All bytes that are a character by themselves, except NUL.
std::string CharactersOfOneByte();

/// Texts outside the code page, in another encoding or cut within a character: for the code pages 932 and 65001. In
/// others usually every byte is a character.
std::vector<CodePageText> TextsOutsideCodePage();

/// Records the code page in the results of the run.
/// @return false, with a message, if FC_CODE_PAGE names another one: such a run must end without results.
bool HasExpectedCodePage();
