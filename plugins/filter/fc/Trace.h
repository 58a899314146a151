// Trace lines. A line is one call of Trace, which formats nothing unless the component is wanted:
//     Trace(kHealthEngine, "recovery check: %d metrics over threshold", count);
#pragma once

#include <source_location>
#include <string_view>

#include <wx/string.h>

#include "vta_core.h"

/// The component that a line belongs to, and the place that it comes from.
struct TraceSite {
    // NOLINTNEXTLINE(google-explicit-constructor): the conversion takes down the place of the call
    TraceSite(const wchar_t *toComponent, const std::source_location &from = std::source_location::current())
        : component(toComponent), place(from) {}

    const wchar_t *component;
    std::source_location place;
};

/// The file's name without the folders of the machine that built it.
constexpr const char *FileNameOf(std::string_view path) {
    const std::size_t slash = path.find_last_of("/\\");
    return path.data() + (slash == path.npos ? 0 : slash + 1);
}

/// Writes a line if the component is wanted. Any thread.
/// @param format     as wxString::Format has it, and
/// @param arguments  its arguments.
template <typename... Arguments>
void Trace(const TraceSite &site, const wxFormatString &format, const Arguments &...arguments) {
    if (!VtaCore::LogTraceIsEnabled(site.component))
        return;
    VtaCore::LogTrace(site.component, FileNameOf(site.place.file_name()), static_cast<int>(site.place.line()),
                      site.place.function_name(), wxString::Format(format, arguments...));
}

/// A text from outside for a message, whatever its encoding: UTF-8 if it is that, else the locale's, else Latin-1.
inline wxString TextForMessage(const char *text) {
    return wxString(text, wxConvWhateverWorks);
}
