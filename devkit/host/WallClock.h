// The time of day as the module, the script and the host see it.
#pragma once

/// Seconds since 1970, UTC, with a fraction; of the simulated clock, if there is one. Any thread.
double WallClockSeconds();
