// Values as JSON that may stand in a script element of a page.
#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Texts are UTF-8. Characters with a meaning in HTML are escaped.
std::string Quoted(std::string_view text);

/// With at most three decimals; null for a non-finite number.
std::string Number(double value);

/// "name":true or "name":false.
std::string Flag(const char *name, bool flag);

/// "name":"text", or "name":null.
std::string OptionalText(const char *name, const std::optional<std::string> &text);
