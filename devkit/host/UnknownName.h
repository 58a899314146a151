// Errors for names that do not exist, which offer the nearest ones.
#pragma once

#include "LuaEdge.h"
#include "Nearest.h"

/// Raises "WHAT 'NAME'; did you mean ...?".
/// @param known  yields the names that exist, as a vector of texts.
template <typename Known>
int RaiseUnknownName(lua_State *L, const char *what, std::string_view name, const Known &known) {
    bool pushed = false;
    {
        std::string text = what;
        text.append(" '").append(name).append("'").append(Suggestion(name, known()));
        pushed = PushText(L, text);
    }
    return RaiseText(L, pushed);
}

/// The names of the fields, for RaiseUnknownName.
template <typename Field, std::size_t count>
std::vector<std::string> NamesOf(const Field (&fields)[count]) {
    std::vector<std::string> names;
    for (const Field &field : fields)
        names.emplace_back(field.name);
    return names;
}
