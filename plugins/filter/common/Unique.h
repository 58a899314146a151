// Owners of what the system or a library hands out and wants back. One template for all: it names the function that
// takes the thing back.
//     using DeviceList = Unique<HDEVINFO, SetupDiDestroyDeviceInfoList>;
//     const DeviceList list(UniqueHandleOrNull(SetupDiGetClassDevsW(...)));
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

/// Gives a thing back by one call, whose result nobody needs. The thread's last error stays: it may be that of the
/// failure that ends the owner's scope.
template <auto GiveBack>
struct UniqueDeleter {
    template <typename Thing>
    void operator()(Thing *thing) const {
        const DWORD error = GetLastError();
        (void)GiveBack(thing);
        SetLastError(error);
    }
};

/// Owns a handle or a block of memory; null stands for none.
/// @tparam Pointer  the type as the functions of the thing have it, such as HANDLE or SC_HANDLE.
template <typename Pointer, auto GiveBack>
using Unique = std::unique_ptr<std::remove_pointer_t<Pointer>, UniqueDeleter<GiveBack>>;

/// A file, device, token, event or thread.
using UniqueHandle = Unique<HANDLE, CloseHandle>;
/// An open registry key.
using UniqueKey = Unique<HKEY, RegCloseKey>;
/// A service, or the service manager.
using UniqueService = Unique<SC_HANDLE, CloseServiceHandle>;

/// The handle that a function has returned which answers INVALID_HANDLE_VALUE for none. @return null for that.
inline HANDLE UniqueHandleOrNull(HANDLE returned) {
    return returned == INVALID_HANDLE_VALUE ? nullptr : returned;
}
