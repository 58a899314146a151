// Tells the simulator's own calls from those of the program that is being watched.
#pragma once

#include <cstdint>

#include <windows.h>

namespace Simulator {

/// While one is alive, calls of its thread reach the real functions: they are neither recorded nor counted,
/// nor do they fail by plan. The simulator's own code is linked into the host and the tests, whose import
/// tables are redirected as others are. May be nested. Keeps the last error.
class InsideSimulator {
public:
    InsideSimulator();
    ~InsideSimulator();
    InsideSimulator(const InsideSimulator &) = delete;
    InsideSimulator &operator=(const InsideSimulator &) = delete;

    /// Whether the calling thread is inside.
    [[nodiscard]] static bool Here();
};

/// The way back out, for calling real functions or callbacks that lead to watched code.
class OutsideSimulator {
public:
    OutsideSimulator();
    ~OutsideSimulator();
    OutsideSimulator(const OutsideSimulator &) = delete;
    OutsideSimulator &operator=(const OutsideSimulator &) = delete;

private:
    std::uintptr_t m_depth;
};

/// One word per thread. `thread_local` of MinGW allocates on first use, through libgcc's import table.
class ThreadWord {
public:
    ThreadWord() : m_index(TlsAlloc()) {}
    [[nodiscard]] std::uintptr_t Get() const;
    void Set(std::uintptr_t value) const;

private:
    DWORD m_index;
};

}  // namespace Simulator
