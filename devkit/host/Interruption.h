// Ctrl-C, Ctrl-Break, and closing the console.
#pragma once

#include <lua.hpp>
#include <windows.h>

/// The status that shells report for a program ended by Ctrl-C.
constexpr int kInterrupted = 130;

/// From now on, the first interruption raises an error in the script and ends waits for InterruptionEvent. A program
/// that has not ended some seconds later is terminated with kInterrupted; a further interruption more than half a
/// second later terminates it at once. Call it once.
/// @param save  called before the program is terminated instead of its script; on a separate thread, while others run.
/// @return false on failure.
[[nodiscard]] bool WatchForInterruption(void (*save)());

/// The script that gets the error; null for none. Any thread.
void InterruptScript(lua_State *L);

/// While one exists, nothing runs that an interruption would have to wait for. On one thread.
class Idle {
public:
    Idle();
    ~Idle();
    Idle(const Idle &) = delete;
    Idle &operator=(const Idle &) = delete;
};

/// Whether an interruption has come. Any thread.
[[nodiscard]] bool IsInterrupted();

/// Signalled by the interruption; null before WatchForInterruption. For waits.
[[nodiscard]] HANDLE InterruptionEvent();
