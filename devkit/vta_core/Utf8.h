// Lossless conversion to UTF-8 and back: an unpaired surrogate and the character NUL, which UTF-8 proper cannot hold in
// a C string, are written in the same bit pattern as any other character.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

namespace VtaCore {

/// The result contains no zero byte: NUL becomes C0 80.
std::string ToUtf8(const wxString &text);

/// A byte that starts no sequence becomes U+FFFD.
wxString FromUtf8(std::string_view bytes);

}  // namespace VtaCore
