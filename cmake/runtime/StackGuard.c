// What -fstack-protector-strong needs from the C runtime, which not every MinGW provides: the value that a function
// writes after its buffers and checks at its end, and what happens if it has changed.
#include <stdint.h>

#include <windows.h>

#define STACK_COOKIE_CHECK_FAILURE 2  // FAST_FAIL_STACK_COOKIE_CHECK_FAILURE, which some headers lack

uintptr_t __stack_chk_guard;

/// The process ends with 0xC0000409, as with Microsoft's compiler.
_Noreturn void __stack_chk_fail(void) {
    __asm__ volatile("int $0x29" : : "c"(STACK_COOKIE_CHECK_FAILURE));  // __fastfail, which MinGW's headers lack
    __builtin_unreachable();
}

/// From the sources that Microsoft's startup code uses, too: nothing in here may load a library, since it runs under
/// the loader lock.
__attribute__((constructor(101))) static void MakeGuard(void) {
    FILETIME time;
    LARGE_INTEGER counter;
    GetSystemTimeAsFileTime(&time);
    QueryPerformanceCounter(&counter);
    const uintptr_t parts[] = {((uintptr_t)time.dwHighDateTime << 32) | time.dwLowDateTime,
                               (uintptr_t)counter.QuadPart,
                               GetCurrentProcessId(),
                               GetCurrentThreadId(),
                               (uintptr_t)&time,
                               __builtin_ia32_rdtsc()};
    uintptr_t guard = 0;
    for (size_t i = 0; i < sizeof parts / sizeof *parts; ++i)
        guard = (guard ^ parts[i]) * 0x9E3779B97F4A7C15u;
    __stack_chk_guard = guard;
}
