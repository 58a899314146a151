// How many threads wait for a processor.
#pragma once

#include <optional>

/// Threads that wait for a processor, measured over 100 ms, for which the caller is held.
/// @return nothing after a failure, which is traced.
std::optional<double> queryRunQueueLength();
