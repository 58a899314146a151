// The functions of the registry, as far as they know of protected keys.
#include <optional>
#include <string>
#include <vector>

#include <winternl.h>

#include "FunctionSet.h"
#include "RegistrySandbox.h"
#include "Security.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

constexpr REGSAM kBeyondReading = KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE | WRITE_DAC |
                                  WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

// Documented for drivers; no header for programs declares it.
constexpr int kKeyNameInformation = 3;
using QueryKeyFunction = LONG(NTAPI *)(HANDLE key, int kind, void *information, ULONG size, ULONG *needed);

/// The key's full name in the registry's own form; empty if there is no such key.
std::wstring NativeName(HKEY key) {
    static const auto query =
        reinterpret_cast<QueryKeyFunction>(reinterpret_cast<void *>(FindRealFunction("ntdll.dll", "NtQueryKey")));
    ULONG needed = 0;
    (void)query(key, kKeyNameInformation, nullptr, 0, &needed);
    std::vector<ULONG> information(needed / sizeof(ULONG) + 1);  // the length of the name in bytes, and the name
    const auto size = static_cast<ULONG>(information.size() * sizeof(ULONG));
    if (needed == 0 || query(key, kKeyNameInformation, information.data(), size, &needed) != 0)
        return {};
    return {reinterpret_cast<const wchar_t *>(information.data() + 1), information.front() / sizeof(wchar_t)};
}

/// The key's path below that which stands for HKEY_LOCAL_MACHINE; nothing if there is no such key, or if it lies
/// elsewhere.
std::optional<std::wstring> MachinePath(const RegistrySandbox &registry, HKEY parent, const wchar_t *path) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(parent, path, 0, KEY_QUERY_VALUE, &opened) != ERROR_SUCCESS)
        return std::nullopt;
    const UniqueKey key(opened);
    const std::wstring name = NativeName(key.get());
    const std::wstring above = NativeName(registry.MachineRoot()) + L'\\';
    if (_wcsnicmp(name.c_str(), above.c_str(), above.size()) != 0)
        return std::nullopt;
    return name.substr(above.size());
}

}  // namespace

void InstallProtectedKeys(FunctionSet &functions, const Security &security, const RegistrySandbox &registry) {
    functions.Put<System::RegOpenKeyExW>([&security, &registry](const auto &next, HKEY parent, LPCWSTR path,
                                                                DWORD options, REGSAM access, HKEY *key) -> LSTATUS {
        if ((access & kBeyondReading) != 0) {
            const std::optional<std::wstring> below = MachinePath(registry, parent, path);
            if (below && security.IsProtected(*below))
                return ERROR_ACCESS_DENIED;
        }
        return next(parent, path, options, access, key);
    });
    functions.Put<System::RegDeleteKeyW>(
        [&security, &registry](const auto &next, HKEY parent, LPCWSTR path) -> LSTATUS {
            const std::optional<std::wstring> below = MachinePath(registry, parent, path);
            const DWORD error = below ? security.DeleteErrorOf(*below) : ERROR_SUCCESS;
            return error == ERROR_SUCCESS ? next(parent, path) : static_cast<LSTATUS>(error);
        });
}

}  // namespace Simulator
