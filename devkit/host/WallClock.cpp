#include "WallClock.h"

#include <windows.h>

double WallClockSeconds() {
    constexpr double intervalsPerSecond = 1e7;
    constexpr double secondsFrom1601To1970 = 11'644'473'600.0;
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    const ULARGE_INTEGER intervals{{time.dwLowDateTime, time.dwHighDateTime}};
    return static_cast<double>(intervals.QuadPart) / intervalsPerSecond - secondsFrom1601To1970;
}
