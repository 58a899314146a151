// Opening and closing the driver, and its last error.
#include <algorithm>
#include <cstring>

#include "DriverState.h"

using namespace Vti;

namespace {

constexpr std::uintptr_t kFirstHandle = 0x7100'0000;
constexpr std::uintptr_t kHandleStep = 16;

vti_handle_t *NewHandle() {
    static std::uintptr_t next = kFirstHandle;
    next += kHandleStep;
    return reinterpret_cast<vti_handle_t *>(next);
}

}  // namespace

vti_handle_t *vti_open(void) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall("vti_open", "");
    if (NextFault("vti_open") != nullptr || !TheDriver().present)
        return nullptr;
    vti_handle_t *handle = NewHandle();
    OpenHandles()[handle];
    ++TheDriver().openHandles;
    return handle;
}

void vti_close(vti_handle_t *handle) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall("vti_close", "");
    if (OpenHandles().erase(handle) != 0)
        --TheDriver().openHandles;
}

int32_t vti_driver_available(vti_handle_t *handle) {
    bool available = false;
    const int32_t status = Perform("vti_driver_available", handle, "", [&](const Driver &driver) {
        available = driver.available;
        return Outcome();
    });
    return available ? 1 : status;
}

void vti_get_error(vti_handle_t *handle, char *buffer, uint32_t size) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall("vti_get_error", std::to_string(size));
    const auto open = OpenHandles().find(handle);
    const std::string text = open != OpenHandles().end() ? open->second : "the handle is not open";
    if (buffer != nullptr)
        std::memcpy(buffer, text.c_str(), std::min<std::size_t>(size, text.size() + 1));
}
