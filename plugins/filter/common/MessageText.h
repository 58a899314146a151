// Texts from outside for messages. A message never loses its text, whatever the encoding and the system's code page.
#pragma once

#include <wx/string.h>

/// A text that is UTF-8 as a rule, such as a script's: read as that, else in the code page, else in Latin-1.
wxString TextForMessage(const char *text);

/// A text that is in the code page as a rule, such as a library's: read in that, else in UTF-8. What is neither is read
/// in the code page, with its replacement for what is no character there, such as one that the library has cut in two.
/// @param text  null is an empty text.
wxString LibraryTextForMessage(const char *text);
