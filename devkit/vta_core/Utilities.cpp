// The library's free functions.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <vector>

#include <objbase.h>

#include "LiveObject.h"
#include "Records.h"

extern "C" {
volatile unsigned profiler_blockfilter = 0;
volatile unsigned profiler_running = 0;
}

namespace VtaCore {
namespace {

/// The maximum buffer size of FormatMessage, in characters.
constexpr unsigned kMaxMessage = 32'767;
/// "{8-4-4-4-12}" and the terminator.
constexpr int kGuidChars = 39;

}  // namespace

unsigned SystemTickCount() {
    return GetTickCount();
}

wxString LocalizedMsg(unsigned id, unsigned size, HINSTANCE module, ...) {
    std::vector<wchar_t> text(std::clamp(size, 1u, kMaxMessage));
    va_list inserts;
    va_start(inserts, module);
    const DWORD length = FormatMessageW(FORMAT_MESSAGE_FROM_HMODULE, module, id, 0, text.data(),
                                        static_cast<DWORD>(text.size()), &inserts);
    va_end(inserts);
    return {text.data(), length};
}

void ShowUserNotification(int severity, const wxString &text, const wxString &detail) {
    Records::Add(Control::Notification{Control::Notification::Kind::User, severity, text, detail});
}

void ShowRebootNotification(_RebootReason reason) {
    Records::Add(Control::Notification{Control::Notification::Kind::Reboot, reason, {}, {}});
}

wxString toString(const GUID &guid) {
    wchar_t text[kGuidChars];
    StringFromGUID2(guid, text, kGuidChars);
    return text;
}

wxString toHexString(const void *data, std::size_t size) {
    constexpr char kDigits[] = "0123456789abcdef";
    const auto *bytes = static_cast<const std::uint8_t *>(data);
    std::string text;
    text.reserve(2 * size);
    for (std::size_t i = 0; i < size; ++i) {
        text += kDigits[bytes[i] >> 4];
        text += kDigits[bytes[i] & 0xF];
    }
    return text;
}

int vsnprintf_safe(char *buffer, std::size_t size, const char *format, va_list arguments) {
    if (buffer == nullptr || size == 0)
        return -1;
    const int length = std::vsnprintf(buffer, size, format, arguments);
    buffer[size - 1] = '\0';
    return length >= 0 && static_cast<std::size_t>(length) < size ? length : -1;
}

int Control::LiveObjects() {
    return g_liveObjects;
}

}  // namespace VtaCore
