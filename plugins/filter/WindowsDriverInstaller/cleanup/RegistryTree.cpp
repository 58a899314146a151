#include "RegistryTree.h"

#include <optional>

#include <windows.h>

#include "common/Unique.h"

// Documented for drivers; no user-mode header declares it. RegDeleteKeyW takes a path and follows the links in it.
extern "C" __declspec(dllimport) LONG NTAPI NtDeleteKey(HANDLE key);

namespace {

constexpr int kMaxReturns = 10;
constexpr int kMaxSubkeys = 10'000;  ///< More than a device has: ends the deletion if somebody keeps adding keys.
constexpr int kMaxLevels = 512;      ///< The registry's own limit.

/// Opens a link itself, never what it leads to: anybody may have put one into a key that is open to everyone. For the
/// same reason each key is opened from the one above it, so that no link can slip into a path.
LSTATUS OpenRegistryTreeKey(HKEY parent, const std::wstring &name, REGSAM access, UniqueKey &key) {
    HKEY opened = nullptr;
    const LSTATUS status = RegOpenKeyExW(parent, name.c_str(), REG_OPTION_OPEN_LINK, access, &opened);
    key.reset(status == ERROR_SUCCESS ? opened : nullptr);
    return status;
}

/// @return false also if the key has subkeys.
bool DeleteRegistryTreeLeaf(HKEY parent, const std::wstring &name) {
    UniqueKey key;
    return OpenRegistryTreeKey(parent, name, DELETE, key) == ERROR_SUCCESS && NtDeleteKey(key.get()) == 0;
}

/// @return nothing where there is none, and where its name can't be given to the functions of the registry: they would
///         take a name with a zero in it for a shorter one, and open another key, or this one once more.
std::optional<std::wstring> FirstRegistrySubkey(const UniqueKey &key) {
    wchar_t buffer[260] = L"";
    DWORD length = 260;
    if (RegEnumKeyExW(key.get(), 0, buffer, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS)
        return std::nullopt;
    std::wstring name(buffer, length);
    if (name.empty() || name.find(L'\0') != name.npos)
        return std::nullopt;
    return name;
}

bool DeleteRegistryTreeKey(HKEY parent, const std::wstring &name, int levels);

/// Always deletes the first one, since each is gone when the next is queried. Stops at the first that stays.
void DeleteRegistrySubkeys(const UniqueKey &key, int levels) {
    std::wstring deleted;
    int returns = 0;
    for (int subkeys = 0; subkeys < kMaxSubkeys; ++subkeys) {
        const std::optional<std::wstring> name = FirstRegistrySubkey(key);
        if (!name)
            break;
        // A key that is recreated each time, or can't be found by its name, must not keep this loop running.
        if (*name == deleted && ++returns == kMaxReturns)
            break;
        if (!DeleteRegistryTreeKey(key.get(), *name, levels))
            break;
        deleted = *name;
    }
}

/// @param levels  how deep the rest of the tree may be.
bool DeleteRegistryTreeKey(HKEY parent, const std::wstring &name, int levels) {
    // Enough for a key without subkeys.
    if (DeleteRegistryTreeLeaf(parent, name))
        return true;
    UniqueKey key;
    const LSTATUS status = OpenRegistryTreeKey(parent, name, KEY_READ, key);
    if (status != ERROR_SUCCESS)
        return status == ERROR_FILE_NOT_FOUND;
    if (levels > 1)
        DeleteRegistrySubkeys(key, levels - 1);
    key.reset();
    return DeleteRegistryTreeLeaf(parent, name);
}

}  // namespace

int DeleteRegistryTree(const std::wstring &keyPath) {
    return DeleteRegistryTreeKey(HKEY_LOCAL_MACHINE, keyPath, kMaxLevels) ? 0 : 1;
}
