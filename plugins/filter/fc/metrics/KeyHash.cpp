#include "KeyHash.h"

#include <array>

// clang-format off
#include <windows.h>
#include <ntsecapi.h>
// clang-format on

namespace {

/// Random bytes. A seed would only be added to a published secret.
class DrawnKeyHashSecret {
public:
    DrawnKeyHashSecret() {
        if (!RtlGenRandom(m_bytes.data(), static_cast<ULONG>(m_bytes.size())))
            FillFromProcess();
    }

    [[nodiscard]] std::span<const std::byte> Bytes() const { return m_bytes; }

private:
    /// Without random bytes: what nobody outside of this process knows exactly. Keys that collide are slow, not
    /// wrong; only thousands of them with one hash would take memory without end.
    void FillFromProcess() {
        struct {
            LARGE_INTEGER counter;
            FILETIME time;
            DWORD process;
            DWORD thread;
            const void *stack;
            const void *module;
        } state{};
        QueryPerformanceCounter(&state.counter);
        GetSystemTimeAsFileTime(&state.time);
        state.process = GetCurrentProcessId();
        state.thread = GetCurrentThreadId();
        state.stack = &state;
        state.module = this;
        XXH3_generateSecret(m_bytes.data(), m_bytes.size(), &state, sizeof(state));
    }

    std::array<std::byte, XXH3_SECRET_DEFAULT_SIZE> m_bytes{};
};

}  // namespace

std::span<const std::byte> KeyHashSecret() {
    // At its first use, not while the library is loaded: drawing random bytes may load another one.
    static const DrawnKeyHashSecret secret;
    return secret.Bytes();
}
