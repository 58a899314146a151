// The owner of a kernel handle.
#pragma once

#include <memory>
#include <system_error>

#include <windows.h>

namespace VtaCore {

struct HandleCloser {
    using pointer = HANDLE;
    void operator()(HANDLE handle) const {
        if (handle != INVALID_HANDLE_VALUE)
            CloseHandle(handle);
    }
};
using Handle = std::unique_ptr<HANDLE, HandleCloser>;

enum class Reset { Automatic, Manual };

/// A new unsignalled, unnamed event. Throws std::system_error on failure.
inline Handle NewEvent(Reset reset) {
    Handle event(CreateEventW(nullptr, reset == Reset::Manual, FALSE, nullptr));
    if (!event)
        throw std::system_error(static_cast<int>(GetLastError()), std::system_category(), "CreateEvent");
    return event;
}

}  // namespace VtaCore
