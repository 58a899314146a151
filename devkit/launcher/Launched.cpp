// Signals to fc-launch that the program ends by itself. Linked into each program that is run that way: under Wine a
// killed program has the status 0, too.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <windows.h>

#include "Launch.h"

namespace {

HANDLE endEvent = nullptr;

void TellEnd() {
    (void)SetEvent(endEvent);
}

class Launched {
public:
    Launched() {
        const wchar_t *const handle = _wgetenv(kEndEventVariable);
        if (handle == nullptr)
            return;
        endEvent = reinterpret_cast<HANDLE>(static_cast<std::uintptr_t>(_wcstoui64(handle, nullptr, 16)));
        // Neither must be inherited by programs that this one starts.
        (void)_wputenv((std::wstring(kEndEventVariable) + L"=").c_str());
        (void)SetHandleInformation(endEvent, HANDLE_FLAG_INHERIT, 0);
        // Registered before main, and so called after everything that main registers.
        (void)std::atexit(&TellEnd);
    }
};
const Launched launched;

}  // namespace
