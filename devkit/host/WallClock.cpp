#include "WallClock.h"

#include <cmath>
#include <cstdio>

#include <windows.h>

double WallClockSeconds() {
    constexpr double intervalsPerSecond = 1e7;
    constexpr double secondsFrom1601To1970 = 11'644'473'600.0;
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    const ULARGE_INTEGER intervals{{time.dwLowDateTime, time.dwHighDateTime}};
    return static_cast<double>(intervals.QuadPart) / intervalsPerSecond - secondsFrom1601To1970;
}

std::string ClockText(double seconds) {
    constexpr double msPerDay = 86'400'000;
    double ms = std::fmod(std::floor(seconds * 1000), msPerDay);
    if (ms < 0)
        ms += msPerDay;
    const auto ofDay = static_cast<unsigned>(ms);
    char text[16] = "";
    (void)std::snprintf(text, sizeof text, "%02u:%02u:%02u.%03u", ofDay / 3'600'000, ofDay / 60'000 % 60,
                        ofDay / 1000 % 60, ofDay % 1000);
    return text;
}

std::string SecondsText(double seconds) {
    char text[32] = "";
    (void)std::snprintf(text, sizeof text, "%.1f s", seconds);
    return text;
}
