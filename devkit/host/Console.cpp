#include "Console.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>

#include <windows.h>
#include <io.h>

#include "WallClock.h"

namespace {

constexpr std::chrono::seconds kPatience{1};

/// A thread that is killed while it prints keeps the lock; the others then continue without it.
std::timed_mutex g_consoleLock;
std::size_t g_statusLength = 0;

/// Overwrites the status line, and returns to its beginning. This works on terminals without control sequences.
void EraseStatus() {
    if (g_statusLength == 0)
        return;
    (void)std::fprintf(stderr, "\r%*s\r", static_cast<int>(g_statusLength), "");
    g_statusLength = 0;
}

}  // namespace

void PrintLineOf(double time, const std::string &line) {
    PrintLine(ClockText(time) + "  " + line);
}

void PrintLine(const std::string &line) {
    const std::unique_lock lock(g_consoleLock, kPatience);
    EraseStatus();
    (void)std::fprintf(stderr, "%s\n", line.c_str());
    (void)std::fflush(stderr);
}

void ShowStatus(const std::string &text) {
    const std::unique_lock lock(g_consoleLock, kPatience);
    const std::size_t before = g_statusLength;
    if (text.empty()) {
        EraseStatus();
    } else {
        (void)std::fprintf(stderr, "\r%-*s", static_cast<int>(before), text.c_str());
        g_statusLength = std::max(before, text.size());
    }
    (void)std::fflush(stderr);
}

bool IsTerminal() {
    return _isatty(_fileno(stderr)) != 0;
}

std::size_t TerminalWidth() {
    constexpr std::size_t usual = 80;
    CONSOLE_SCREEN_BUFFER_INFO info{};
    if (GetConsoleScreenBufferInfo(GetStdHandle(STD_ERROR_HANDLE), &info) == 0 || info.dwSize.X <= 0)
        return usual;
    return static_cast<std::size_t>(info.dwSize.X);
}
