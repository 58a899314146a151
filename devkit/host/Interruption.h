// Ctrl-C, Ctrl-Break, and a console that is closed.
#pragma once

#include <lua.hpp>
#include <windows.h>

/// What shells have for a program that Ctrl-C has ended.
constexpr int kInterrupted = 130;

/// From now on, the first interruption raises an error in the script and ends what waits for InterruptionEvent. A
/// program that has not ended some seconds later is ended with kInterrupted, and at once by another interruption that
/// comes more than half a second later. Once.
/// @param save  is called before the program is ended for its script; on a thread of its own, while others work.
/// @return false on failure.
[[nodiscard]] bool WatchForInterruption(void (*save)());

/// Whose script is to get the error; null for none any more. Any thread.
void InterruptScript(lua_State *L);

/// While one is alive, nothing is at work that an interruption would have to wait for. On one thread.
class Idle {
public:
    Idle();
    ~Idle();
    Idle(const Idle &) = delete;
    Idle &operator=(const Idle &) = delete;
};

/// Whether an interruption has come. Any thread.
[[nodiscard]] bool IsInterrupted();

/// Signalled from the interruption on; null before WatchForInterruption. For waits.
[[nodiscard]] HANDLE InterruptionEvent();
