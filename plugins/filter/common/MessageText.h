// Texts from outside for messages. A message never loses its text, whatever the encoding and the system's code page.
#pragma once

#include <wx/string.h>

/// A text that is usually UTF-8, such as a script's: read as that, else in the code page, else in Latin-1.
wxString TextForMessage(const char *text);

/// A text that is usually in the code page, such as a library's: read in that, else in UTF-8. What is neither is read
/// in the code page, which replaces invalid bytes, such as a truncated character.
/// @param text  null is an empty text.
wxString LibraryTextForMessage(const char *text);
