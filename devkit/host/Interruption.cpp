#include "Interruption.h"

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "CallScope.h"
#include "Console.h"
#include "Files.h"

namespace {

/// For what the script and the host still have to do. A console that is closed gives them five seconds.
constexpr DWORD kGraceMs = 3'000;
/// One Ctrl-C may come twice: from the terminal, and from the script that has started the program.
constexpr ULONGLONG kSameMs = 500;

HANDLE g_event = nullptr;
void (*g_save)() = nullptr;
std::atomic<ULONGLONG> g_firstTick{0};  ///< Of the first interruption; 0 for none.
std::atomic<bool> g_isIdle{false};
std::mutex g_scriptLock;
lua_State *g_script = nullptr;

/// Once: a script that catches the error has time to write what it has.
void RaiseError(lua_State *L, lua_Debug * /*unused*/) {
    lua_sethook(L, nullptr, 0, 0);
    luaL_error(L, "interrupted");
}

/// Any thread; Lua itself allows no other call at such a time.
void RequestError(lua_State *L) {
    lua_sethook(L, RaiseError, LUA_MASKCALL | LUA_MASKRET | LUA_MASKCOUNT, 1);
}

void StopScript() {
    const std::lock_guard lock(g_scriptLock);
    if (g_script != nullptr)
        RequestError(g_script);
}

/// Without the end of other threads, for which a thread at work in the module would have to wait.
[[noreturn]] void EndAtOnce() {
    StopReplacing();
    (void)TerminateProcess(GetCurrentProcess(), kInterrupted);
    std::abort();  // not reached
}

/// The script may be in a call that does not come back.
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

/// Runs on a thread of its own; the system holds back other interruptions until it returns.
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
        (void)WaitForSingleObject(GetCurrentProcess(), INFINITE);  // the system ends the program when this returns
    return TRUE;
}

}  // namespace

bool WatchForInterruption(void (*save)()) {
    g_save = save;
    g_event = CreateEventW(nullptr, TRUE, FALSE, nullptr);  // stays as long as the process
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
