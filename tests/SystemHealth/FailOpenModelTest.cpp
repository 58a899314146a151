// The module compared with an independent model, over long random histories of a host.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>

#include "FailOpenModel.h"
#include "HealthFixture.h"
#include "SeededRandom.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace {

using Model::Seen;
using Model::Surroundings;

constexpr const char *kFileKeys[] = {
    "SYSTEM_CONNECTION_REFUSAL_PORT=",   "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=",
    "SYSTEM_RECOVERY_FACTOR=",           "SYSTEM_MIN_ACT_DURATION=",
    "SYSTEM_MAX_ACT_DURATION=",          "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=",
    "SYSTEM_RUNQ_PCT_THRESHOLD=",        "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=",
    "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=", "SYSTEM_MIN_FREE_MEM_PCT=",
    "SYSTEM_MAX_ITERATION_INTERVAL=",    "SYSTEM_UNLOAD_DRIVER=",
    "SYSTEM_DISABLE_FAIL_OPEN=",
};
constexpr const char *kPolicyKeys[] = {
    "SYS_CONF_CONN_REFUSAL_PORT",
    "SYS_CONF_CONN_REFUSAL_OUTBOUND",
    "SYS_CONF_RECOVER_FACTOR",
    "SYS_CONF_MIN_ACT_DURATION",
    "SYS_CONF_MAX_ACT_DURATION",
    "SYS_THR_CONN_REFUSAL_PCT",
    "SYS_THR_RUNQ",
    "SYS_THR_CONN_EST_PER_CPU",
    "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU",
    "SYS_THR_FREE_MEM",
    "SYS_THR_MAX_ITERATION_INVL",
    "SYS_CONF_UNLOAD_DRIVER",
    "SYS_CONF_DISABLE_FAIL_OPEN",
};
/// Values worth trying for each setting: usual ones, bounds, and values outside them.
const std::vector<double> kTried[] = {
    {443, 443, 8080, 65535, 0, 65536},
    {1, 1, 0.5, 0, 2},
    {80, 80, 50, 100, 12.5, 0, 101},
    {1, 1, 2, 2, 5, 30, 0.5, 0, 31},
    {2, 3, 4, 10, 240, 0.5, 0, 241},
    {50, 100, 100, 10, 0, 100.5},
    {20, 40, 40, 200, 200, 0.25, 0, 200.5},
    {50, 1000, 10000000, 10, 0, 20000000},
    {1, 100, 100000, 0, 100001},
    {5, 10, 25, 0, 26},
    {40, 60, 60, 60, 60, 45, 45, 0.25, 0, 61},
    {1, 0.5, 0},
    {0.5, 0.5, 0, 1},
};

std::string Number(double number) {
    std::ostringstream text;
    text.precision(12);
    text << number;
    return text.str();
}

std::string AsText(const Model::Configuration &configuration) {
    if (!configuration.isPolicy) {
        std::string text;
        for (const auto &[value, number] : configuration.lines)
            text += kFileKeys[value] + Number(number) + "\n";
        return text;
    }
    if (configuration.isBroken)
        return "{\"SYS_THR_RUNQ\": ";
    std::string text = "{\"other\": [1, 2]";
    for (const auto &[value, number] : configuration.lines) {
        const bool isThreshold = value >= Model::RefusalLimit && value <= Model::IntervalLimit;
        text += std::string(", \"") + kPolicyKeys[value] +
                "\": " + (isThreshold ? "{\"value\": " + Number(number) + "}" : Number(number));
    }
    return text + "}";
}

/// The life of a random host.
class RandomHost {
public:
    explicit RandomHost(std::mt19937 generator) : m_generator(generator) { NewConfiguration(); }

    bool Chance(unsigned oneIn) { return m_generator() % oneIn == 0; }

    /// The input of the next iteration, except the time.
    Surroundings Next(int lastAction) {
        if (Chance(40))
            NewConfiguration();
        Surroundings around;
        around.configuration = m_configuration;
        around.state = NextState(lastAction);
        around.queue = Chance(10) ? Pick({25, 40, 41, 60, 199.5}) : Pick({0, 1, 7.9, 20});
        around.processors = Chance(200) ? 0 : 1 + m_generator() % 16;
        around.queueFails = Chance(150);
        around.memoryFails = Chance(150);
        around.totalKiB = Chance(500) ? 0 : 8'388'608;
        around.freeKiB = Chance(15) ? m_generator() % 1'000'000 : 4'000'000 + m_generator() % 1000;
        around.driverOpens = !Chance(20);
        around.driverReads = !Chance(20);
        for (std::uint64_t &counter : m_counters)
            counter = Chance(100) ? m_generator() % 1000 : counter + m_generator() % NextGrowth();
        around.counters = m_counters;
        return around;
    }

    /// Seconds until the next iteration; negative for a clock that is set back.
    std::int64_t NextPause(int lastAction) {
        if (Chance(300))
            return -static_cast<std::int64_t>(m_generator() % 100'000);
        if (lastAction == 1 && Chance(30))
            return m_generator() % (Chance(4) ? 20'000 : 600);
        return m_generator() % (Chance(20) ? 60 : 40);
    }

private:
    double Pick(const std::vector<double> &values) { return values[m_generator() % values.size()]; }
    std::uint32_t NextGrowth() { return Chance(50) ? 2'000'000'000 : 300; }

    void NewConfiguration() {
        m_configuration = {};
        m_configuration.isPolicy = Chance(2);
        m_configuration.isBroken = Chance(15);
        for (int value = 0; value < Model::kValues; ++value) {
            const unsigned oneIn = value == Model::Port ? 1 : value == Model::Off ? 10 : 2;
            if (!Chance(oneIn) || (value == Model::Port && Chance(8)))
                continue;
            m_configuration.lines.emplace_back(static_cast<Model::Value>(value), Pick(kTried[value]));
            if (Chance(20))
                m_configuration.lines.emplace_back(static_cast<Model::Value>(value), Pick(kTried[value]));
        }
    }

    std::string NextState(int lastAction) {
        if (Chance(60))
            return Chance(4) ? "activated" : Chance(2) ? "Activated again" : "Deactivated";
        if (lastAction == 1)
            m_state = "Activated";
        else if (lastAction == 0)
            m_state = "Deactivated";
        return m_state;
    }

    std::mt19937 m_generator;
    Model::Configuration m_configuration;
    std::array<std::uint64_t, 10> m_counters{};
    std::string m_state = "Deactivated";
};

class FailOpenHistory : public HealthFixture {
protected:
    FailOpenHistory() {
        VtaCore::Control::EnableTrace("*", false);
        simulation().Functions().Put<Simulator::System::fopen>(
            [this](const auto &next, const char *path, const char *mode) -> std::FILE * {
                return *mode == 'w' && !m_isWritable ? nullptr : next(path, mode);
            });
        Begin();
    }

    /// A fresh module, as after a restart of the agent; its settings stay.
    void RestartModule() {
        Reload();
        Begin();
    }

    /// Prepares the machine for the iteration's input, and sets its time.
    void Arrange(Surroundings &around) {
        around.now = simulation().GetClock().WallFileTime() / 10;
        machine().processorQueue = around.queue;
        machine().processorCount = around.processors;
        machine().memoryTotal = around.totalKiB * 1024;
        machine().memoryAvailable = around.freeKiB * 1024;
        driver().present = around.driverOpens;
        driver().faults.clear();
        if (!around.driverReads)
            driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = "no answer"};
        driver().scanCounters = around.counters;
        if (around.queueFails)
            (void)simulation().GetFaults().FailNth("PdhCollectQueryData", 1, ERROR_GEN_FAILURE);
        if (around.memoryFails)
            (void)simulation().GetFaults().FailNth("GlobalMemoryStatusEx", 1, ERROR_GEN_FAILURE);
        Configure(around.configuration);
    }

    /// Whether the module can write the file of the values in use; nothing else depends on it, and opening a file takes
    /// long here.
    void LetTheFileBeWritten(bool isWritable) { m_isWritable = isWritable; }

    Seen Iterate(const Surroundings &around) {
        const std::string policy = around.configuration.isPolicy ? AsText(around.configuration) : "";
        (void)log.Take();
        lua_getglobal(lua, "iterate");
        lua_pushlstring(lua, around.state.data(), around.state.size());
        lua_pushlstring(lua, policy.data(), policy.size());
        EXPECT_EQ(lua_pcall(lua, 2, 16, 0), LUA_OK) << lua_tostring(lua, -1);
        Seen seen;
        seen.action = static_cast<int>(lua_tonumber(lua, 1));
        for (std::size_t i = 0; i < seen.readOut.size(); ++i)
            seen.readOut[i] = static_cast<std::int64_t>(lua_tonumber(lua, 2 + static_cast<int>(i)));
        seen.enabled = lua_toboolean(lua, 14) != 0;
        if (lua_toboolean(lua, 15) != 0)
            seen.port = static_cast<int>(lua_tonumber(lua, 16));
        lua_settop(lua, 0);
        simulation().GetFaults().Clear();
        seen.storedWait = Setting("vtp.filter.SysHealthBackoffWait");
        seen.storedCheck = Setting("vtp.filter.SysHealthLastRecoveryCheck");
        seen.unloadFlag = Flag("vtp.filter.FailOpenUnloadDriver");
        for (const LogLine &line : log.Take())
            if (line.level == wxLOG_Info)
                seen.logLine += line.text;
        return seen;
    }

private:
    void Begin() {
        lua.Run(R"(
            local f, dom = SLB.filter, dom
            function iterate(state, policy)
                local action = f.CheckSystemHealthMetrics(dom, state, policy).action
                local _, m = f.GetSysHealthMetrics()
                return action, m[1].value, m[1].threshold, m[2].value, m[2].threshold, m[3].value, m[3].threshold,
                    m[4].value, m[4].threshold, m[5].value, m[5].threshold, m[6].value, m[6].threshold,
                    f.GetSysHealthEnabled(), f.GetScanMetricPort()
            end)");
        for (const char *muted :
             {"PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "PdhGetFormattedCounterValue", "PdhCloseQuery",
              "GetSystemInfo", "GlobalMemoryStatusEx", "Sleep", "fopen", "fclose", "GetSystemTimeAsFileTime"})
            simulation().GetJournal().Mute(muted);
    }

    void Configure(const Model::Configuration &configuration) {
        if (configuration.isPolicy)
            return;
        if (configuration.isBroken) {
            RemoveConfig();
            m_written.clear();
            return;
        }
        const std::string text = AsText(configuration);
        if (text != m_written || text.empty())
            WriteConfig(text);
        m_written = text;
    }

    std::string m_written;
    bool m_isWritable = true;
};

std::string Describe(const Seen &seen) {
    std::ostringstream text;
    text << "action " << seen.action << ", enabled " << seen.enabled << ", port " << seen.port.value_or(-1) << ", wait "
         << seen.storedWait << " since " << seen.storedCheck << ", unload " << seen.unloadFlag << ", read-out";
    for (const std::int64_t number : seen.readOut)
        text << ' ' << number;
    return text.str() + "\n" + seen.logLine;
}

/// The line with NaN spelled without a sign, which depends on the processor.
std::string WithPlainNan(std::string line) {
    for (std::size_t place = line.find("-nan"); place != line.npos; place = line.find("-nan", place))
        line.erase(place, 1);
    return line;
}

TEST_F(FailOpenHistory, AgreesWithTheModelAtEveryStepOfRandomHistories) {
    const auto iterations = static_cast<int>(Thoroughly(50'000, 200'000));
    RandomHost host(SeededRandom());
    Model::Health model;
    std::array<int, 8> actions{};
    int restarts = 0;
    int odd = 0;  // long lines with a number that is none, or infinite
    int last = 0;
    for (int i = 0; i < iterations; ++i) {
        const std::int64_t pause = host.NextPause(last);
        AdvanceSeconds(pause);
        if (host.Chance(2000)) {
            ++restarts;
            RestartModule();
            model.Restart();
        }
        Surroundings around = host.Next(last);
        Arrange(around);
        LetTheFileBeWritten(i % 20 == 0);
        Seen seen = Iterate(around);
        Seen expected = model.Iterate(around);
        last = seen.action;
        ++actions.at(static_cast<std::size_t>(last));
        seen.logLine = WithPlainNan(seen.logLine);
        expected.logLine = WithPlainNan(expected.logLine);
        odd += expected.logLine.find("nan") != std::string::npos || expected.logLine.find("inf") != std::string::npos;
        ASSERT_EQ(seen, expected) << "iteration " << i << ", " << HowToRepeat() << "\n"
                                  << Describe(seen) << "\nexpected\n"
                                  << Describe(expected) << "\nstate " << around.state << ", configuration\n"
                                  << AsText(around.configuration);
        ASSERT_EQ(lua_gettop(lua), 0);
    }
    EXPECT_TRUE(VtaCore::Control::TakeEvents().empty()) << "the subsystem sends none";
    EXPECT_EQ(driver().openHandles, 0);
    std::printf(
        "%d iterations, %d restarts; normal %d, fail-open %d, disabled %d, no sample %d, wrong %d, no memory %d; %s\n",
        iterations, restarts, actions[0], actions[1], actions[2], actions[5], actions[6], actions[7],
        HowToRepeat().c_str());
    for (const std::size_t action : {0U, 1U, 2U, 5U, 6U, 7U})
        EXPECT_GT(actions.at(action), iterations / 2000) << "too few results with action " << action;
    EXPECT_GT(odd, iterations / 2000) << "too few results with NaN or infinity";
}

/// A history in which only a restart could make a difference: no driver, no pause that even a recovery check finds too
/// long.
class SteadyHost {
public:
    explicit SteadyHost(unsigned seed) : m_generator(seed) {}

    std::int64_t NextPause() { return 1 + m_generator() % 34; }
    double NextQueue() {
        if (m_generator() % 40 == 0)
            m_overloaded = !m_overloaded;
        return m_overloaded ? 100 : m_generator() % 30;
    }

private:
    std::mt19937 m_generator;
    bool m_overloaded = false;
};

class FailOpenProperties : public FailOpenHistory {
protected:
    static Surroundings Steady(double queue, int lastAction) {
        Surroundings around;
        around.configuration.isPolicy = true;
        around.configuration.lines = {
            {Model::QueueLimit, 40}, {Model::MinWait, 2}, {Model::MaxWait, 9}, {Model::Factor, 80}};
        around.state = lastAction == 1 ? "Activated" : "Deactivated";
        around.queue = queue;
        around.totalKiB = 1000;
        around.freeKiB = 500;
        return around;
    }

    /// The actions of a history, with a restart of the module before every n-th iteration; 0 for none.
    std::vector<int> Live(unsigned seed, int iterations, int restartEvery) {
        RestartModule();
        dom.SettingStore("vtp.filter.SysHealthBackoffWait", "0");
        dom.SettingStore("vtp.filter.SysHealthLastRecoveryCheck", "0");
        SteadyHost host(seed);
        std::vector<int> actions;
        for (int i = 0; i < iterations; ++i) {
            AdvanceSeconds(host.NextPause());
            if (restartEvery != 0 && i % restartEvery == restartEvery - 1)
                RestartModule();
            Surroundings around = Steady(host.NextQueue(), actions.empty() ? 0 : actions.back());
            Arrange(around);
            actions.push_back(Iterate(around).action);
        }
        return actions;
    }

    /// A recovery check on a host that has waited long enough. @return the action.
    int CheckRecovery(const Surroundings &around) {
        dom.SettingStore("vtp.filter.SysHealthBackoffWait", "1");
        dom.SettingStore("vtp.filter.SysHealthLastRecoveryCheck", "1");
        AdvanceSeconds(10);
        Surroundings now = around;
        Arrange(now);
        return Iterate(now).action;
    }
};

TEST_F(FailOpenProperties, ARestartAtAnyPointChangesNoLaterDecision) {
    constexpr int iterations = 500;
    const unsigned seed = SeededRandom()();
    const std::vector<int> unbroken = Live(seed, iterations, 0);
    EXPECT_GT(std::count(unbroken.begin(), unbroken.end(), 1), 50);
    EXPECT_GT(std::count(unbroken.begin(), unbroken.end(), 0), 50);
    for (const int restartEvery : {1, 7, 50})
        EXPECT_EQ(Live(seed, iterations, restartEvery), unbroken) << "every " << restartEvery << ", " << HowToRepeat();
}

TEST_F(FailOpenProperties, AWorseMetricNeverCausesARecovery) {
    std::mt19937 generator = SeededRandom();
    int recoveries = 0;
    (void)CheckRecovery(Steady(0, 1));
    for (int i = 0; i < 2000; ++i) {
        Surroundings host = Steady(generator() % 60, 1);
        host.configuration.lines.emplace_back(Model::MemoryFloor, 20);
        host.freeKiB = generator() % 400;
        Surroundings worse = host;
        worse.queue += generator() % 20;
        worse.freeKiB -= std::min<std::uint64_t>(worse.freeKiB, generator() % 100);
        const bool recovered = CheckRecovery(host) == 0;
        recoveries += recovered ? 1 : 0;
        const bool worseRecovered = CheckRecovery(worse) == 0;
        EXPECT_TRUE(recovered || !worseRecovered) << "queue " << host.queue << " to " << worse.queue << ", free "
                                                  << host.freeKiB << " to " << worse.freeKiB << ", " << HowToRepeat();
    }
    EXPECT_GT(recoveries, 100);
    EXPECT_LT(recoveries, 1900);
}

TEST_F(FailOpenProperties, TheWaitNeverExceedsTheCapOnceItHasGrown) {
    std::mt19937 generator = SeededRandom();
    for (int i = 0; i < 500; ++i) {
        Surroundings host = Steady(100, 1);
        const double cap = 1 + generator() % 240;
        const double first = 1 + generator() % 30;
        host.configuration.isPolicy = false;  // the file may set the first wait above the cap
        host.configuration.lines = {{Model::QueueLimit, 40}, {Model::MinWait, first}, {Model::MaxWait, cap}};
        dom.SettingStore("vtp.filter.SysHealthBackoffWait", "0");
        for (int check = 0; check < 4; ++check) {
            Surroundings now = host;
            Arrange(now);
            const Seen seen = Iterate(now);
            ASSERT_EQ(seen.action, 1);
            const double wait = std::stod(seen.storedWait);
            EXPECT_LE(wait, check == 0 ? first : cap) << "first " << first << ", check " << check;
            AdvanceSeconds(static_cast<std::int64_t>(wait) * 60);
        }
    }
}

TEST_F(FailOpenProperties, AnIterationWithAnUnreachableDriverStillChecksTheOtherMetrics) {
    for (const bool opens : {false, true}) {
        Surroundings host = Steady(100, 0);
        host.configuration.lines.insert(host.configuration.lines.end(),
                                        {{Model::Port, 443}, {Model::RefusalLimit, 10}});
        host.driverOpens = opens;
        host.driverReads = false;
        Arrange(host);
        const Seen seen = Iterate(host);
        EXPECT_EQ(seen.action, 1);
        EXPECT_EQ(seen.readOut[0], 100);
        EXPECT_EQ(seen.readOut[3], 0) << "the driver's metric is off";
    }
}

}  // namespace
