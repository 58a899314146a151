// Registry keys by the system's own functions: by names of any characters, and links as they are.
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

// These take keys that were opened, not the predefined ones. A name is that of one key and may have zeros in it.

/// The key's full name in the registry's own form; empty if there is no such key.
[[nodiscard]] std::wstring NativeName(HKEY key);
/// Sorted.
[[nodiscard]] std::vector<std::wstring> SubkeyNames(HKEY key);
/// Opens a link itself. @return null if there is no such key, or if it may not be opened.
[[nodiscard]] UniqueKey OpenBelow(HKEY parent, const std::wstring &name, REGSAM access);
/// Makes a key, or opens it.
/// @param options  REG_OPTION_CREATE_LINK, or 0.
/// @throws std::system_error  if it can't be made.
UniqueKey CreateBelow(HKEY parent, const std::wstring &name, DWORD options = 0);
/// Deletes a key with all below it, if it is there; of a link nothing but itself.
/// @return 0, or the status of the key that stays first.
LONG DeleteBelow(HKEY parent, const std::wstring &name);

}  // namespace Simulator
