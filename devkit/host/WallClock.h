// The time of day as the module, the script and the host see it.
#pragma once

#include <string>

/// Seconds since 1970, UTC, with a fraction; of the simulated clock, if there is one. Any thread.
double WallClockSeconds();

/// The time of day, UTC, such as "08:05:09.250".
/// @param seconds  since 1970.
std::string ClockText(double seconds);

/// A duration, such as "12.4 s".
std::string SecondsText(double seconds);
