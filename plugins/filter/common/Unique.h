// Owners of resources of the system or a library. One template for all: it names the function that releases the
// resource.
//     using DeviceList = Unique<HDEVINFO, SetupDiDestroyDeviceInfoList>;
//     const DeviceList list(UniqueHandleOrNull(SetupDiGetClassDevsW(...)));
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

/// Releases a resource and ignores the result. The thread's last error stays: it may be that of the
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

/// Owns a handle or a block of memory; null means none.
/// @tparam Pointer  the handle type, such as HANDLE or SC_HANDLE.
template <typename Pointer, auto GiveBack>
using Unique = std::unique_ptr<std::remove_pointer_t<Pointer>, UniqueDeleter<GiveBack>>;

/// A file, device, token, event or thread.
using UniqueHandle = Unique<HANDLE, CloseHandle>;
/// An open registry key.
using UniqueKey = Unique<HKEY, RegCloseKey>;
/// A service, or the service manager.
using UniqueService = Unique<SC_HANDLE, CloseServiceHandle>;

/// Converts INVALID_HANDLE_VALUE, which some functions return for none, to null.
inline HANDLE UniqueHandleOrNull(HANDLE returned) {
    return returned == INVALID_HANDLE_VALUE ? nullptr : returned;
}
