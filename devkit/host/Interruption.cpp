#include "Interruption.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "CallScope.h"
#include "Console.h"
#include "Files.h"

namespace {

/// The time for the script and the host to finish. The system allows five seconds when a console is closed.
constexpr DWORD kGraceMs = 3'000;
/// One Ctrl-C may arrive twice: from the terminal, and from the script that started the program.
constexpr ULONGLONG kSameMs = 500;

HANDLE g_event = nullptr;
void (*g_save)() = nullptr;
std::atomic<ULONGLONG> g_firstTick{0};  ///< Of the first interruption; 0 for none.
std::atomic<bool> g_isIdle{false};
std::mutex g_scriptLock;
lua_State *g_script = nullptr;

/// Only once: a script that catches the error has time to save its results.
void RaiseError(lua_State *L, lua_Debug * /*unused*/) {
    lua_sethook(L, nullptr, 0, 0);
    luaL_error(L, "interrupted");
}

/// Any thread; Lua allows no other call at such a time.
void RequestError(lua_State *L) {
    lua_sethook(L, RaiseError, LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT, 1);
}

void StopScript() {
    const std::lock_guard lock(g_scriptLock);
    if (g_script != nullptr)
        RequestError(g_script);
}

/// Without ending other threads, which would wait for a thread that is inside the module.
[[noreturn]] void EndAtOnce() {
    StopReplacing();
    (void)TerminateProcess(GetCurrentProcess(), kInterrupted);
    std::abort();  // not reached
}

/// The script may be in a call that does not return.
void EndInTime() {
    const Simulator::InsideSimulator realTime;
    (void)WaitForSingleObject(g_event, INFINITE);
    if (!g_isIdle) {
        Sleep(kGraceMs);
        PrintLine("fc-host: interrupted; what is still at work is ended");
    }
    g_save();
    EndAtOnce();
}

/// Runs on a separate thread; the system holds back other interruptions until it returns.
BOOL WINAPI OnInterruption(DWORD kind) {
    ULONGLONG first = 0;
    if (!g_firstTick.compare_exchange_strong(first, GetTickCount64())) {
        if (GetTickCount64() - first > kSameMs)
            EndAtOnce();
        return TRUE;
    }
    StopScript();
    (void)SetEvent(g_event);
    if (kind != CTRL_C_EVENT && kind != CTRL_BREAK_EVENT)
        (void)WaitForSingleObject(GetCurrentProcess(),
                                  INFINITE);  // the system terminates the program when this returns
    return TRUE;
}

}  // namespace

bool WatchForInterruption(void (*save)()) {
    g_save = save;
    g_event = CreateEventW(nullptr, TRUE, FALSE, nullptr);  // lives as long as the process
    if (g_event == nullptr)
        return false;
    std::thread(EndInTime).detach();
    return SetConsoleCtrlHandler(OnInterruption, TRUE) != 0;
}

void InterruptScript(lua_State *L) {
    const std::lock_guard lock(g_scriptLock);
    g_script = L;
    if (L != nullptr && IsInterrupted())
        RequestError(L);
}

Idle::Idle() {
    g_isIdle = true;
}

Idle::~Idle() {
    g_isIdle = false;
}

bool IsInterrupted() {
    return g_firstTick != 0;
}

HANDLE InterruptionEvent() {
    return g_event;
}
