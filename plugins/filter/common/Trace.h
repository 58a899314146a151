// Trace lines. A line is one call of Trace, which formats nothing unless the component is wanted:
//     Trace(kFilterTrace, "Set ifList: %s", list);
// A helper that traces on behalf of a function that readers know is handed that function's TraceSite: its lines carry
// that function's name and their own numbers. A helper whose one line serves several callers takes a TraceLine instead,
// which carries the number of the line that called it.
#pragma once

#include <algorithm>
#include <source_location>
#include <string>
#include <string_view>

#include <wx/string.h>

#include "MessageText.h"
#include "vta_core.h"

/// The module frame's component.
constexpr wchar_t kFilterTrace[] = L"filter";

/// The component that a line belongs to, and the function that it names.
struct TraceSite {
    // NOLINTNEXTLINE(google-explicit-constructor): the conversion takes down the place of the call
    TraceSite(const wchar_t *toComponent, const std::source_location &from = std::source_location::current())
        : component(toComponent), place(from) {}

    const wchar_t *component;
    std::source_location place;  ///< Somewhere in the function.
};

/// The same, with the place whose file and number the line carries.
struct TraceLine {
    // NOLINTNEXTLINE(google-explicit-constructor): the conversion takes down the place of the call
    TraceLine(const TraceSite &site, const std::source_location &from = std::source_location::current())
        : component(site.component), function(site.place), place(from) {}
    // NOLINTNEXTLINE(google-explicit-constructor)
    TraceLine(const wchar_t *toComponent, const std::source_location &from = std::source_location::current())
        : TraceLine(TraceSite(toComponent, from), from) {}

    const wchar_t *component;
    std::source_location function;
    std::source_location place;
};

/// The file's name without the folders of the machine that built it.
constexpr const char *TraceFileNameOf(std::string_view path) {
    return path.data() + (path.find_last_of("/\\") + 1);  // without a folder that is npos + 1, which is 0
}

/// The name of a function, with its namespaces and classes, from the text that the compiler makes of it:
/// "bool Filter::Diagnostics::IsDriverOpen(vti_handle_t*)" is Filter::Diagnostics::IsDriverOpen. Unnamed namespaces are
/// left out.
inline std::string TraceFunctionNameOf(std::string_view signature) {
    std::string name(signature);
    for (const std::string_view unnamed : {"{anonymous}::", "<unnamed>::",  // GCC
                                           "(anonymous namespace)::",       // clang
                                           "`anonymous-namespace'::"}) {    // MSVC
        for (std::size_t at = name.find(unnamed); at != name.npos; at = name.find(unnamed, at))
            name.erase(at, unnamed.size());
    }
    name.erase(std::min(name.find('('), name.size()));
    name.erase(name.find_last_not_of(' ') + 1);  // MSVC has one in "operator ()"
    name.erase(0, name.rfind(' ') + 1);
    name.erase(0, name.find_first_not_of("*&"));  // of the result; clang writes them to the name
    return name.ends_with("::operator") ? name + "()" : name;
}

/// A text from outside as an argument of Trace, made by TextForMessage only if the line is wanted.
struct OutsideText {
    const char *text;
};

/// The same, made by LibraryTextForMessage; null is an empty text.
struct LocaleText {
    const char *text;
};

template <typename Argument>
const Argument &TraceArgument(const Argument &argument) {
    return argument;
}
inline wxString TraceArgument(const OutsideText &outside) {
    return TextForMessage(outside.text);
}
inline wxString TraceArgument(const LocaleText &locale) {
    return LibraryTextForMessage(locale.text);
}

/// Writes a line if the component is wanted. Any thread.
/// @param format     as wxString::Format has it, and
/// @param arguments  its arguments.
template <typename... Arguments>
void Trace(const TraceLine &line, const wxFormatString &format, const Arguments &...arguments) {
    if (!VtaCore::LogTraceIsEnabled(line.component))
        return;
    VtaCore::LogTrace(line.component, TraceFileNameOf(line.place.file_name()), static_cast<int>(line.place.line()),
                      TraceFunctionNameOf(line.function.function_name()).c_str(),
                      wxString::Format(format, TraceArgument(arguments)...));
}
