// The functions that read the time or wait for it.
#include "Clock.h"

#include "FunctionSet.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

FILETIME ToFileTime(std::uint64_t time) {
    return {static_cast<DWORD>(time), static_cast<DWORD>(time >> 32)};
}

void InstallSleeps(FunctionSet &functions, Clock &clock) {
    functions.Put<System::Sleep>([&clock](const auto &next, DWORD ms) {
        clock.Wait(ms, Clock::Purpose::Sleep, [&](DWORD realMs) -> DWORD {
            next(realMs);
            return WAIT_TIMEOUT;
        });
    });
    functions.Put<System::SleepEx>([&clock](const auto &next, DWORD ms, BOOL alertable) -> DWORD {
        const DWORD ended = clock.Wait(ms, Clock::Purpose::Sleep, [&](DWORD realMs) -> DWORD {
            return next(realMs, alertable) == WAIT_IO_COMPLETION ? WAIT_IO_COMPLETION : WAIT_TIMEOUT;
        });
        return ended == WAIT_IO_COMPLETION ? ended : 0;
    });
}

void InstallWaits(FunctionSet &functions, Clock &clock) {
    constexpr auto purpose = Clock::Purpose::Wait;
    functions.Put<System::WaitForSingleObject>([&clock](const auto &next, HANDLE handle, DWORD ms) {
        return clock.Wait(ms, purpose, [&](DWORD realMs) { return next(handle, realMs); });
    });
    functions.Put<System::WaitForSingleObjectEx>([&clock](const auto &next, HANDLE handle, DWORD ms, BOOL alertable) {
        return clock.Wait(ms, purpose, [&](DWORD realMs) { return next(handle, realMs, alertable); });
    });
    functions.Put<System::WaitForMultipleObjects>(
        [&clock](const auto &next, DWORD count, const HANDLE *handles, BOOL all, DWORD ms) {
            return clock.Wait(ms, purpose, [&](DWORD realMs) { return next(count, handles, all, realMs); });
        });
    functions.Put<System::WaitForMultipleObjectsEx>(
        [&clock](const auto &next, DWORD count, const HANDLE *handles, BOOL all, DWORD ms, BOOL alertable) {
            return clock.Wait(ms, purpose, [&](DWORD realMs) { return next(count, handles, all, realMs, alertable); });
        });
}

void InstallSteadyClock(FunctionSet &functions, Clock &clock) {
    functions.Put<System::GetTickCount>([&clock](const auto &) { return static_cast<DWORD>(clock.TickMs()); });
    functions.Put<System::GetTickCount64>([&clock](const auto &) { return clock.TickMs(); });
    functions.Put<System::QueryPerformanceCounter>([&clock](const auto &, LARGE_INTEGER *counter) {
        counter->QuadPart = clock.PerformanceCounter();
        return TRUE;
    });
}

void InstallWallClock(FunctionSet &functions, Clock &clock) {
    const auto fileTime = [&clock](const auto &, FILETIME *time) { *time = ToFileTime(clock.WallFileTime()); };
    functions.Put<System::GetSystemTimeAsFileTime>(fileTime);
    functions.Put<System::GetSystemTimePreciseAsFileTime>(fileTime);
    functions.Put<System::GetSystemTime>([&clock](const auto &, SYSTEMTIME *time) {
        const FILETIME now = ToFileTime(clock.WallFileTime());
        FileTimeToSystemTime(&now, time);
    });
    functions.Put<System::GetLocalTime>([&clock](const auto &, SYSTEMTIME *time) {
        const FILETIME now = ToFileTime(clock.WallFileTime());
        SYSTEMTIME universal{};
        FileTimeToSystemTime(&now, &universal);
        SystemTimeToTzSpecificLocalTime(nullptr, &universal, time);
    });
    functions.Put<System::_time64>([&clock](const auto &, __time64_t *time) -> __time64_t {
        const __time64_t now = clock.WallUnix();
        if (time != nullptr)
            *time = now;
        return now;
    });
}

}  // namespace

void InstallClock(FunctionSet &functions, Clock &clock) {
    InstallSleeps(functions, clock);
    InstallWaits(functions, clock);
    InstallSteadyClock(functions, clock);
    InstallWallClock(functions, clock);
}

}  // namespace Simulator
