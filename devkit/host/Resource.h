// Files that are resources of the program.
#pragma once

#include <string>
#include <string_view>

#include <windows.h>
#include <wx/string.h>

/// @param error  names the resource if the program lacks it; the result is empty then.
inline std::string_view Resource(const wchar_t *name, std::string &error) {
    const HRSRC found = FindResourceW(nullptr, name, RT_RCDATA);
    const HGLOBAL loaded = found != nullptr ? LoadResource(nullptr, found) : nullptr;
    const void *data = loaded != nullptr ? LockResource(loaded) : nullptr;
    if (data != nullptr)
        return {static_cast<const char *>(data), SizeofResource(nullptr, found)};
    error = "fc-host.exe lacks its resource " + wxString(name).utf8_string();
    return {};
}
