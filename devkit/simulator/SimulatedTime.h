// The unit of simulated time.
#pragma once

#include <chrono>
#include <cstdint>

namespace Simulator {

/// The resolution of the system's file times.
using Interval = std::chrono::duration<std::int64_t, std::ratio<1, 10'000'000>>;

}  // namespace Simulator
