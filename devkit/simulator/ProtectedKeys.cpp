// The functions of the registry, as far as protected keys affect them.
#include <optional>
#include <string>

#include "FunctionSet.h"
#include "NativeKeys.h"
#include "RegistrySandbox.h"
#include "Security.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

constexpr REGSAM kBeyondReading = KEY_SET_VALUE | KEY_CREATE_SUB_KEY | KEY_CREATE_LINK | DELETE | WRITE_DAC |
                                  WRITE_OWNER | GENERIC_WRITE | GENERIC_ALL;

constexpr LONG kStatusUnsuccessful = static_cast<LONG>(0xC0000001);
constexpr LONG kStatusAccessDenied = static_cast<LONG>(0xC0000022);
constexpr LONG kStatusKeyDeleted = static_cast<LONG>(0xC000017C);

/// The native status for a Windows error.
LONG StatusOf(DWORD error) {
    if (error == ERROR_ACCESS_DENIED)
        return kStatusAccessDenied;
    return error == ERROR_KEY_DELETED ? kStatusKeyDeleted : kStatusUnsuccessful;
}

/// The key's path below the sandbox's HKEY_LOCAL_MACHINE; empty if there is no such key, or if it lies elsewhere.
std::optional<std::wstring> MachinePath(const RegistrySandbox &registry, HKEY key) {
    const std::wstring name = NativeName(key);
    const std::wstring above = NativeName(registry.MachineRoot()) + L'\\';
    if (_wcsnicmp(name.c_str(), above.c_str(), above.size()) != 0)
        return std::nullopt;
    return name.substr(above.size());
}

/// @param options  REG_OPTION_OPEN_LINK for a link itself.
std::optional<std::wstring> MachinePath(const RegistrySandbox &registry, HKEY parent, const wchar_t *path,
                                        DWORD options) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(parent, path, options & REG_OPTION_OPEN_LINK, KEY_QUERY_VALUE, &opened) != ERROR_SUCCESS)
        return std::nullopt;
    return MachinePath(registry, UniqueKey(opened).get());
}

}  // namespace

void InstallProtectedKeys(FunctionSet &functions, const Security &security, const RegistrySandbox &registry) {
    functions.Put<System::RegOpenKeyExW>([&security, &registry](const auto &next, HKEY parent, LPCWSTR path,
                                                                DWORD options, REGSAM access, HKEY *key) -> LSTATUS {
        if ((access & kBeyondReading) != 0) {
            const std::optional<std::wstring> below = MachinePath(registry, parent, path, options);
            if (below && security.IsProtected(*below))
                return ERROR_ACCESS_DENIED;
        }
        return next(parent, path, options, access, key);
    });
    functions.Put<System::RegDeleteKeyW>(
        [&security, &registry](const auto &next, HKEY parent, LPCWSTR path) -> LSTATUS {
            const std::optional<std::wstring> below = MachinePath(registry, parent, path, 0);
            const DWORD error = below ? security.DeleteErrorOf(*below) : ERROR_SUCCESS;
            return error == ERROR_SUCCESS ? next(parent, path) : static_cast<LSTATUS>(error);
        });
    functions.Put<System::NtDeleteKey>([&security, &registry](const auto &next, HANDLE key) -> LONG {
        const std::optional<std::wstring> below = MachinePath(registry, static_cast<HKEY>(key));
        const DWORD error = below ? security.DeleteErrorOf(*below) : ERROR_SUCCESS;
        return error == ERROR_SUCCESS ? next(key) : StatusOf(error);
    });
}

}  // namespace Simulator
