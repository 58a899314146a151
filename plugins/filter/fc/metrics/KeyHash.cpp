#include "KeyHash.h"

#include <array>
#include <cstddef>

// clang-format off
#include <windows.h>
#include <ntsecapi.h>
// clang-format on

#define XXH_INLINE_ALL
#include <xxhash.h>

namespace {

/// The whole secret of the hash. A seed would only be added to a published one.
class KeyHashSecret {
public:
    KeyHashSecret() {
        if (!RtlGenRandom(m_bytes.data(), static_cast<ULONG>(m_bytes.size())))
            FillFromProcess();
    }

    [[nodiscard]] const std::byte *Bytes() const { return m_bytes.data(); }
    static constexpr std::size_t kSize = XXH3_SECRET_DEFAULT_SIZE;

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

    std::array<std::byte, kSize> m_bytes{};
};

}  // namespace

std::uint32_t HashKey(std::string_view key) {
    // At its first use, not while the library is loaded: drawing random bytes may load another one.
    static const KeyHashSecret secret;
    return static_cast<std::uint32_t>(
        XXH3_64bits_withSecret(key.data(), key.size(), secret.Bytes(), KeyHashSecret::kSize));
}

KeyWithHash::KeyWithHash(std::string_view text) : m_text(text), m_hash(HashKey(text)) {}
