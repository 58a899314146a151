// Distinguishes the simulator's own calls from those of the watched program.
#pragma once

#include <cstdint>

#include <windows.h>

namespace Simulator {

/// While one exists, calls of its thread reach the real functions: they are not recorded, counted, or made to fail. The
/// simulator's own code is linked into the host and the tests, whose import tables are redirected like others. Can be
/// nested. Keeps the last error.
class InsideSimulator {
public:
    InsideSimulator();
    ~InsideSimulator();
    InsideSimulator(const InsideSimulator &) = delete;
    InsideSimulator &operator=(const InsideSimulator &) = delete;

    /// Whether the calling thread is inside.
    [[nodiscard]] static bool Here();
};

/// Leaves the simulator again, to call real functions or callbacks that lead to watched code.
class OutsideSimulator {
public:
    OutsideSimulator();
    ~OutsideSimulator();
    OutsideSimulator(const OutsideSimulator &) = delete;
    OutsideSimulator &operator=(const OutsideSimulator &) = delete;

private:
    std::uintptr_t m_depth;
};

/// One word per thread. MinGW's `thread_local` allocates on first use, through libgcc's import table.
class ThreadWord {
public:
    ThreadWord() : m_index(TlsAlloc()) {}
    [[nodiscard]] std::uintptr_t Get() const;
    void Set(std::uintptr_t value) const;

private:
    DWORD m_index;
};

}  // namespace Simulator
