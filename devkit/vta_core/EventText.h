// The text of an agent event that is sent without arguments.
#pragma once

#include <wx/string.h>

namespace VtaCore {

/// What a printf-like function would make of `format` if every argument were null or 0, ignoring widths and precisions:
/// a number prints as 0, a text as "(null)", a character and a count of characters as nothing, "%%" as a percent sign.
/// A percent sign that starts no directive stays.
wxString FormatWithoutArguments(const wxString &format);

}  // namespace VtaCore
