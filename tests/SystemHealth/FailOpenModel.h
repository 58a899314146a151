// A second, independent description of what the health subsystem must decide: plain, slow, one function per rule. It
// shares no code with the module.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Model {

/// The thirteen values by their place in the configuration.
enum Value {
    Port,
    Outbound,
    Factor,
    MinWait,
    MaxWait,
    RefusalLimit,
    QueueLimit,
    EstablishedLimit,
    ScanLimit,
    MemoryFloor,
    IntervalLimit,
    Unload,
    Off,
    kValues
};

/// A configuration as it is written: values in line order.
struct Configuration {
    bool isPolicy = false;
    bool isBroken = false;  ///< A policy that is not JSON, a file that is missing.
    std::vector<std::pair<Value, double>> lines;
};

/// The input of one iteration.
struct Surroundings {
    Configuration configuration;
    std::string state;
    std::uint64_t now = 0;  ///< Microseconds since 1601.
    double queue = 0;
    bool queueFails = false;
    std::uint32_t processors = 4;
    bool memoryFails = false;
    std::uint64_t totalKiB = 0;
    std::uint64_t freeKiB = 0;
    bool driverOpens = true;
    bool driverReads = true;
    std::array<std::uint64_t, 10> counters{};
};

struct Metric {
    bool on = false;
    double value = 0;
    double limit = 0;
};

/// What is visible after an iteration.
struct Seen {
    int action = 0;
    std::array<std::int64_t, 12> readOut{};  ///< Value and limit of each metric.
    bool enabled = false;
    std::optional<int> port;
    std::string storedWait;
    std::string storedCheck;
    std::string unloadFlag;  ///< "true", "false" or "unset".
    std::string logLine;     ///< Empty if none is written.

    bool operator==(const Seen &) const = default;
};

/// The module and the settings of the agent around it.
class Health {
public:
    Health();
    Seen Iterate(const Surroundings &around);
    /// Forgets everything but the agent's settings.
    void Restart();

private:
    struct Accepted {
        std::array<std::optional<double>, kValues> values;
        std::array<bool, kValues> judged{};
        int count = 0;
    };
    Accepted ReadFile(const Configuration &configuration, bool activated);
    Accepted ReadPolicy(const Configuration &configuration, bool activated);
    void ApplySwitches(Accepted &accepted, bool activated);
    int Run(const Surroundings &around, double interval);
    int Decide(const Surroundings &around, bool activated);
    int Recover(const Surroundings &around);
    void ReadDriver(const Surroundings &around, double interval);
    void Measure(const Surroundings &around, double interval);
    [[nodiscard]] int PastLimits(double factor) const;
    void Line(const Surroundings &around, bool activated, int action, double interval);
    void Clear();
    void Store();

    Accepted m_accepted;
    std::array<Metric, 6> m_metrics;
    bool m_enabled = false;
    std::uint64_t m_before = 0;
    std::uint64_t m_activation = 0;
    std::uint64_t m_wait = 0;
    std::uint64_t m_check = 0;
    bool m_baseline = false;
    int m_driverPort = 0;
    std::array<std::uint64_t, 10> m_totals{};
    std::array<double, 10> m_rates{};
    // Of the current iteration.
    double m_factor = 1;
    std::uint64_t m_since = 0;
    std::uint64_t m_next = 0;
    std::string m_line;
    // The agent's settings.
    std::string m_storedWait;
    std::string m_storedCheck;
    std::string m_unload = "unset";
};

}  // namespace Model
