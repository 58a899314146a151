#include "RegistryTree.h"

#include <memory>
#include <optional>
#include <type_traits>

#include <windows.h>

namespace {

constexpr int kMaxReturns = 10;

struct CloseKey {
    void operator()(HKEY key) const { (void)RegCloseKey(key); }
};
using Key = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseKey>;

std::optional<std::wstring> FirstSubkey(const Key &key) {
    wchar_t name[260] = L"";
    DWORD length = 260;
    if (RegEnumKeyExW(key.get(), 0, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        return std::nullopt;
    return name;
}

/// Always takes the first one, since each is gone when the next is asked for. Ends at the first that stays.
void DeleteSubkeys(const Key &key, std::wstring &keyPath) {
    const std::size_t pathEnd = keyPath.size();
    if (!keyPath.ends_with(L'\\'))
        keyPath += L'\\';
    const std::size_t nameStart = keyPath.size();
    std::wstring deleted;
    int returns = 0;
    while (const std::optional<std::wstring> name = FirstSubkey(key)) {
        // A link that leads nowhere counts as gone and is there all the same: it is not tried without end.
        if (*name == deleted && ++returns == kMaxReturns)
            break;
        keyPath.replace(nameStart, keyPath.npos, *name);
        if (DeleteRegistryTree(keyPath) != 0)
            break;
        deleted = *name;
    }
    keyPath.resize(pathEnd);
}

}  // namespace

int DeleteRegistryTree(std::wstring &keyPath) {
    // A key without subkeys needs no more.
    if (RegDeleteKeyW(HKEY_LOCAL_MACHINE, keyPath.c_str()) == ERROR_SUCCESS)
        return 0;
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, KEY_READ, &opened);
    if (status != ERROR_SUCCESS)
        return status == ERROR_FILE_NOT_FOUND ? 0 : 1;
    {
        const Key key(opened);
        DeleteSubkeys(key, keyPath);
    }
    return RegDeleteKeyW(HKEY_LOCAL_MACHINE, keyPath.c_str()) == ERROR_SUCCESS ? 0 : 1;
}
