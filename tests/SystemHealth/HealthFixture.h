// An agent that queries the host's health: a machine, a driver, a configuration file, and the results.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "Machine.h"
#include "ModuleFixture.h"
#include "vta_core_control.h"
#include "vti_control.h"

/// The action, by the numbers that scripts see.
enum Action : int {
    kNormal = 0,
    kFailOpen = 1,
    kDisabled = 2,
    kCollectFailed = 5,
    kBadArgument = 6,
    kMemoryFailed = 7,
};

/// A metric as scripts read it.
struct ReadOut {
    std::string name;
    std::int64_t value;
    std::int64_t threshold;

    bool operator==(const ReadOut &) const = default;
};

/// The module with a machine whose sleeps take no real time (the clock advances all the same: 100 ms in each sample).
/// All components are traced, the log's verbose flag is on. In Lua: `dom`, and `f` for SLB.filter.
class HealthFixture : public ModuleFixture {
protected:
    HealthFixture();
    ~HealthFixture() override;

    /// One iteration. @return the action; -1 if the result is not a table with that one field, and the test fails.
    int Check(const std::string &state = "Deactivated", const std::string &policy = "");

    /// The whole configuration file.
    void WriteConfig(const std::string &text);
    void RemoveConfig();
    /// The configuration in use as the module last wrote it; empty without a file.
    [[nodiscard]] std::string WrittenJson();
    void RemoveWrittenJson();
    [[nodiscard]] std::filesystem::path ConfigPath();
    [[nodiscard]] std::filesystem::path JsonPath();

    /// The six metrics as GetSysHealthMetrics returns them.
    std::vector<ReadOut> Metrics();
    ReadOut Metric(const std::string &shortName);

    /// A stored setting of the agent; and a flag, for which "unset" is a result, too.
    [[nodiscard]] std::string Setting(const std::string &key) const;
    [[nodiscard]] std::string Flag(const std::string &key) const;

    Simulator::Machine &machine() { return simulation().GetMachine(); }
    static Vti::Driver &driver() { return Vti::TheDriver(); }

    VtaCore::Control::Dom dom;
    LogCollector log;
};
