// Parses the module's log line about an iteration of its health check.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

/// In the order of the line.
constexpr std::array<const char *, 6> kHealthMetricNames{"rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t"};

/// NaN if the line has none, for example for a limit that was divided by zero.
struct HealthMetric {
    double value = 0;
    double limit = 0;  ///< Both are 0 for a metric that is not checked.
};

/// The content of the line. States are true for Activated.
struct HealthIteration {
    std::uint32_t clock = 0;   ///< When it began: the low 32 bits of the seconds since 1601,
    double clockFraction = 0;  ///< and the fraction of the second.
    int action = 0;
    double interval = 0;  ///< Seconds since the previous call; 0 in the module's first.
    bool startsActive = false;
    bool endsActive = false;
    std::uint64_t waitMinutes = 0;  ///< The backoff's; 0 where none has begun.
    std::uint64_t nextMinutes = 0;  ///< Time until the next recovery check.
    std::array<HealthMetric, kHealthMetricNames.size()> metrics;
};

/// When the iteration began, in seconds since 1970. @param now  a time close to it.
double BeginOf(const HealthIteration &iteration, double now);

/// @param line  as the module logged it. @return empty for any other line.
std::optional<HealthIteration> ParseHealthLine(const std::string &line);
