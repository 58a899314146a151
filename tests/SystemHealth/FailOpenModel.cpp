#include "FailOpenModel.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace Model {

namespace {

constexpr std::array<double, kValues> kGreatest = {65535, 1, 100, 30, 240, 100, 200, 1e7, 1e5, 25, 60, 1, 1};

bool IsThreshold(Value value) {
    return value >= RefusalLimit && value <= IntervalLimit;
}

bool Activates(const std::string &state) {
    return state.substr(0, 9) == "Activated";
}

bool IsKnownState(const std::string &state) {
    return Activates(state) || state.substr(0, 11) == "Deactivated";
}

std::int64_t Truncated(double number) {
    return std::fabs(number) < 9223372036854775808.0 ? static_cast<std::int64_t>(number)
                                                     : std::numeric_limits<std::int64_t>::min();
}

}  // namespace

Health::Health() {
    Restart();
}

void Health::Restart() {
    m_accepted = {};
    m_metrics = {};
    const std::array<double, 6> atFirst = {50, 10, 50, 100, 100, 100};
    for (std::size_t i = 0; i < atFirst.size(); ++i)
        m_metrics[i].limit = atFirst[i];
    m_enabled = false;
    m_before = m_activation = m_wait = m_check = 0;
    m_baseline = false;
    m_driverPort = 0;
    m_totals = {};
    m_rates = {};
}

void Health::Clear() {
    m_wait = m_check = 0;
    Store();
}

void Health::Store() {
    m_storedWait = std::to_string(m_wait);
    m_storedCheck = std::to_string(m_check);
}

Health::Accepted Health::ReadFile(const Configuration &configuration, bool activated) {
    Accepted accepted;
    if (configuration.isBroken)
        return accepted;
    for (const auto &[value, number] : configuration.lines) {
        const double single = static_cast<float>(number);
        if (single > 0 && single <= kGreatest[value]) {
            accepted.values[value] = single;
            accepted.judged[value] = true;
            ++accepted.count;
        }
    }
    ApplySwitches(accepted, activated);
    return accepted;
}

void Health::ApplySwitches(Accepted &accepted, bool activated) {
    m_unload = accepted.values[Unload] == 1.0 ? "true" : "false";
    if (accepted.values[Off] == 1.0) {
        accepted.count = 0;
        return;
    }
    if (activated)
        for (const Value value : {RefusalLimit, EstablishedLimit, ScanLimit})
            accepted.judged[value] = false;
}

Health::Accepted Health::ReadPolicy(const Configuration &configuration, bool activated) {
    Accepted accepted;
    if (configuration.isBroken) {
        accepted.count = 1;
        return accepted;
    }
    std::array<bool, kValues> found{};
    for (const auto &[value, number] : configuration.lines) {
        const bool passes = number <= kGreatest[value] && (IsThreshold(value) ? number > 0 : number >= 0);
        const bool isFirst = !found[value];  // of two members with the same name only the first counts
        found[value] = true;
        if (passes && isFirst) {
            accepted.values[value] = number;
            accepted.judged[value] = true;
            ++accepted.count;
        }
    }
    const auto takeBack = [&accepted](Value value) {
        accepted.values[value].reset();
        accepted.judged[value] = false;
        --accepted.count;
    };
    for (const Value value : {MinWait, MaxWait})
        if (accepted.values[value] && *accepted.values[value] <= 0)
            takeBack(value);
    if (accepted.values[MinWait] && accepted.values[MaxWait] && *accepted.values[MinWait] > *accepted.values[MaxWait])
        takeBack(MaxWait);
    ApplySwitches(accepted, activated);
    return accepted;
}

void Health::ReadDriver(const Surroundings &around, double interval) {
    if (!m_accepted.judged[Port])
        return;
    if (around.driverOpens && !m_baseline)
        m_driverPort = static_cast<int>(*m_accepted.values[Port]);
    if (!around.driverOpens || !around.driverReads) {
        for (const Value value : {RefusalLimit, EstablishedLimit, ScanLimit})
            m_accepted.judged[value] = false;
        return;
    }
    for (std::size_t i = 0; i < m_totals.size() && m_baseline; ++i) {
        const std::uint64_t grown = around.counters[i] >= m_totals[i] ? around.counters[i] - m_totals[i] : 0;
        m_rates[i] = static_cast<double>(grown) / interval;
    }
    m_totals = around.counters;
    m_baseline = true;
}

void Health::Measure(const Surroundings &around, double interval) {
    const std::array<Value, 5> limits = {QueueLimit, RefusalLimit, EstablishedLimit, ScanLimit, MemoryFloor};
    const double cpus = around.processors;
    const std::array<double, 6> values = {
        around.queue,
        m_rates[0] <= 5.0 ? 0.0 : m_rates[3] * 100.0 / m_rates[0],
        m_rates[2] / cpus,
        (m_rates[6] + m_rates[7]) / (cpus * 1048576.0),
        static_cast<double>(around.freeKiB) * 100.0 / static_cast<double>(around.totalKiB),
        interval,
    };
    for (std::size_t i = 0; i < limits.size(); ++i) {
        const bool on = m_accepted.judged[limits[i]];
        m_metrics[i] = on ? Metric{true, values[i], *m_accepted.values[limits[i]]} : Metric{};
    }
    m_metrics[5] = {true, values[5], m_accepted.judged[IntervalLimit] ? *m_accepted.values[IntervalLimit] : 45.0};
}

int Health::PastLimits(double factor) const {
    int past = 0;
    for (std::size_t i = 0; i < m_metrics.size(); ++i) {
        if (!m_metrics[i].on)
            continue;
        const bool isFloor = i == 4;
        past += isFloor ? m_metrics[i].limit / factor > m_metrics[i].value
                        : m_metrics[i].value > m_metrics[i].limit * factor;
    }
    return past;
}

int Health::Recover(const Surroundings &around) {
    if (m_accepted.judged[Factor])
        m_factor = *m_accepted.values[Factor] * 0.01;
    if (PastLimits(m_factor) == 0) {
        m_activation = 0;
        Clear();
        return 0;
    }
    const auto cap = static_cast<std::uint64_t>(m_accepted.judged[MaxWait] ? *m_accepted.values[MaxWait] : 240);
    m_wait = m_wait * 2 > cap ? cap : m_wait * 2;
    m_check = around.now;
    m_next = m_wait;
    Store();
    return 1;
}

int Health::Decide(const Surroundings &around, bool activated) {
    if (!activated) {
        if (PastLimits(1.0) == 0)
            return 0;
        m_activation = around.now;
        Clear();
        return 1;
    }
    m_since = around.now - m_activation;
    if (m_wait == 0) {
        m_wait = static_cast<std::uint64_t>(m_accepted.judged[MinWait] ? *m_accepted.values[MinWait] : 30);
        m_check = around.now;
        Store();
    }
    const std::uint64_t minutes = (around.now - m_check) / 60'000'000;
    if (minutes >= m_wait)
        return Recover(around);
    m_next = m_wait - minutes;
    return 1;
}

void Health::Line(const Surroundings &around, bool activated, int action, double interval) {
    const auto first = static_cast<std::uint64_t>(m_accepted.judged[MinWait] ? *m_accepted.values[MinWait] : 30);
    std::array<char, 512> text{};
    (void)std::snprintf(text.data(), text.size(),
                        "SysHealth: rc=%d tval=%10llu.%06llu delta_t=%4.3f startSt=%s endSt=%s min_dur=%llu "
                        "act_dur=%llu backoff=%llu next_chk=%llu port=%d",
                        action, around.now / 1'000'000 % 4'294'967'296, around.now % 1'000'000, interval,
                        activated ? "Act" : "Deact", action == 1 ? "Act" : "Deact", first * 60, m_since / 1'000'000,
                        m_wait, m_next, m_driverPort);
    m_line = text.data();
    const std::array<const char *, 6> names = {"rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t"};
    for (std::size_t i = 0; i < names.size(); ++i) {
        const double limit = i == 4 ? m_metrics[i].limit / m_factor : m_metrics[i].limit * m_factor;
        (void)std::snprintf(text.data(), text.size(), " %s=%.3f(%.3f)", names[i], m_metrics[i].value, limit);
        m_line += text.data();
    }
}

int Health::Run(const Surroundings &around, double interval) {
    if (!IsKnownState(around.state))
        return 6;
    const bool activated = Activates(around.state);
    m_accepted = around.configuration.isPolicy ? ReadPolicy(around.configuration, activated)
                                               : ReadFile(around.configuration, activated);
    bool lacksPort = false;
    for (const Value value : {RefusalLimit, EstablishedLimit, ScanLimit})
        lacksPort = lacksPort || (m_accepted.judged[value] && !m_accepted.judged[Port]);
    if (lacksPort || m_accepted.count <= 0) {
        Clear();
        return 2;
    }
    if (around.queueFails || around.processors == 0)
        return 5;
    if (around.memoryFails)
        return 7;
    ReadDriver(around, interval);
    if (!m_storedWait.empty())
        m_wait = std::stoull(m_storedWait);
    if (!m_storedCheck.empty())
        m_check = std::stoull(m_storedCheck);
    Measure(around, interval);
    const int action = Decide(around, activated);
    Line(around, activated, action, interval);
    return action;
}

Seen Health::Iterate(const Surroundings &around) {
    m_factor = 1;
    m_since = m_next = 0;
    m_line.clear();
    const double interval = m_before == 0 ? 0.0 : static_cast<double>(around.now - m_before) / 1e6;
    const int action = Run(around, interval);
    m_before = around.now;
    m_enabled = action != 2;
    Seen seen;
    seen.action = action;
    seen.enabled = m_enabled;
    for (std::size_t i = 0; i < m_metrics.size(); ++i) {
        seen.readOut[2 * i] = Truncated(m_metrics[i].value);
        seen.readOut[2 * i + 1] = Truncated(m_metrics[i].limit);
    }
    if (m_enabled && m_accepted.judged[Port])
        seen.port = static_cast<int>(*m_accepted.values[Port]);
    seen.storedWait = m_storedWait;
    seen.storedCheck = m_storedCheck;
    seen.unloadFlag = m_unload;
    seen.logLine = m_line;
    return seen;
}

}  // namespace Model
