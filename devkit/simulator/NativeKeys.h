// Registry keys through the system's native functions: names of any characters, and links themselves.
#pragma once

#include <memory>
#include <string>
#include <type_traits>
#include <vector>

#include <windows.h>

namespace Simulator {

struct KeyCloser {
    void operator()(HKEY key) const;
};
using UniqueKey = std::unique_ptr<std::remove_pointer_t<HKEY>, KeyCloser>;

// These take opened keys, not the predefined ones. A name is that of a single key and may contain zeros.

/// The key's full name in the registry's own form; empty if it does not exist.
[[nodiscard]] std::wstring NativeName(HKEY key);
/// Sorted.
[[nodiscard]] std::vector<std::wstring> SubkeyNames(HKEY key);
/// Opens a link itself. @return null if the key does not exist, or may not be opened.
[[nodiscard]] UniqueKey OpenBelow(HKEY parent, const std::wstring &name, REGSAM access);
/// Creates a key, or opens it.
/// @param options  REG_OPTION_CREATE_LINK, or 0.
/// @throws std::system_error  if it can't be created.
UniqueKey CreateBelow(HKEY parent, const std::wstring &name, DWORD options = 0);
/// Deletes a key with all subkeys, if it exists; of a link only itself.
/// @return 0, or the status of the first key that can't be deleted.
LONG DeleteBelow(HKEY parent, const std::wstring &name);

}  // namespace Simulator
