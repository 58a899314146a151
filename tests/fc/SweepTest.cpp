// Every function of the module with every kind of value in every position, and at random, while the platform fails.

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <set>
#include <string>

#include "SweepFixture.h"

namespace {

class Sweep : public SweepFixture {
protected:
    /// Each value in each position of a usual call and after it; fewer and more arguments than usual.
    void TryEveryPlace(std::size_t function);
    void NextGroup();
    void RunOneOf(std::size_t function, const std::vector<std::size_t> &arguments);

    SweptCall RandomCall(std::size_t function);
    std::vector<std::size_t> RandomArguments(std::size_t function);
    std::size_t RandomFunction();
    bool StartsThreads(const SweptCall &call) const;

    [[nodiscard]] std::vector<std::size_t> ThreadFunctions() const;
    /// A call that is its own group.
    void RunOnNewMachine(const SweptCall &call);
    /// Loads the libraries that stay loaded for the process, and learns the calls of the platform.
    void WarmUpThreads();

    const std::size_t guardedOneIn = GuardedOneIn();

private:
    /// Guarded calls take some milliseconds more.
    static constexpr std::size_t kGuardedOneIn = 40;

    std::size_t m_run = 0;

    static std::size_t GuardedOneIn() {
        const char *const text = std::getenv("FC_GUARDED_ONE_IN");
        return text != nullptr ? std::max<std::size_t>(1, std::stoul(text)) : kGuardedOneIn;
    }
};

bool Sweep::StartsThreads(const SweptCall &call) const {
    return functions[call.function].startsThreads && !call.arguments.empty() &&
           values[call.arguments.front()].kind == AgentKind::Dom;
}

void Sweep::NextGroup() {
    EndGroup();
    RestoreMachine();
    BeginGroup();
}

void Sweep::RunOneOf(std::size_t function, const std::vector<std::size_t> &arguments) {
    const SweptCall call{function, arguments, std::nullopt, m_run % guardedOneIn == 0};
    if (StartsThreads(call))
        return;
    Run(call);
    if (++m_run % kCallsInGroup == 0)
        NextGroup();
}

void Sweep::TryEveryPlace(std::size_t function) {
    const std::vector<std::size_t> usual = UsualArguments(function);
    for (std::size_t place = 0; place <= usual.size(); ++place) {
        for (std::size_t value = 0; value < values.size() && !HasFailure(); ++value) {
            std::vector<std::size_t> arguments = usual;
            arguments.resize(std::max(place + 1, usual.size()));
            arguments[place] = value;
            RunOneOf(function, arguments);
        }
    }
    for (std::size_t count = 0; count <= usual.size(); ++count)
        RunOneOf(function, {usual.begin(), usual.begin() + static_cast<std::ptrdiff_t>(count)});
    constexpr std::size_t tooMany = 250;
    for (const char *value : {"nil", "'key'", "1", "{}"}) {
        std::vector<std::size_t> arguments = usual;
        arguments.resize(tooMany, ValueNamed(value));
        RunOneOf(function, arguments);
        RunOneOf(function, std::vector<std::size_t>(tooMany, ValueNamed(value)));
    }
}

std::vector<std::size_t> Sweep::RandomArguments(std::size_t function) {
    std::vector<std::size_t> arguments = UsualArguments(function);
    if (dice.OneIn(8))
        arguments.resize(dice.Below(arguments.size() + 1));
    else if (dice.OneIn(8))
        arguments.resize(arguments.size() + 1 + dice.Below(dice.OneIn(32) ? 300 : 3), ValueNamed("nil"));
    for (std::size_t &value : arguments) {
        if (dice.OneIn(3))
            value = dice.Below(values.size());
    }
    return arguments;
}

std::size_t Sweep::RandomFunction() {
    std::size_t sum = 0;
    for (const SweptFunction &function : functions)
        sum += function.weight;
    std::size_t rest = dice.Below(sum);
    for (std::size_t i = 0;; ++i) {
        if (rest < functions[i].weight)
            return i;
        rest -= functions[i].weight;
    }
}

SweptCall Sweep::RandomCall(std::size_t function) {
    SweptCall call{function, RandomArguments(function)};
    if (dice.OneIn(2))
        call.fault = RandomFault(function);
    call.guarded = dice.OneIn(guardedOneIn);
    call.onCoroutine = dice.OneIn(16);
    return call;
}

std::vector<std::size_t> Sweep::ThreadFunctions() const {
    return {FunctionNamed("InstallOrUpdateDriver"), FunctionNamed("UninstallDriver")};
}

void Sweep::RunOnNewMachine(const SweptCall &call) {
    RestoreDrivers();
    BeginGroup();
    Run(call);
    EndGroup();
}

void Sweep::WarmUpThreads() {
    constexpr int machines = 8;
    for (int i = 0; i < machines; ++i) {
        for (const std::size_t function : ThreadFunctions()) {
            RestoreDrivers();
            Run({function, UsualArguments(function)});
        }
    }
}

TEST_F(Sweep, HasEveryFunctionOfTheModuleAndNoOther) {
    std::set<std::string> swept;
    for (const SweptFunction &function : functions)
        swept.insert(function.name);
    std::set<std::string> registered;
    lua_getglobal(lua, "SLB");
    lua_getfield(lua, -1, "filter");
    for (lua_pushnil(lua); lua_next(lua, -2) != 0; lua_pop(lua, 1))
        registered.insert(lua_tostring(lua, -2));
    EXPECT_EQ(swept, registered);
}

TEST_F(Sweep, FindsEveryFunctionHarmlessWithEveryValueInEveryPosition) {
    BeginGroup();
    for (std::size_t function = 0; function < functions.size() && !HasFailure(); ++function)
        TryEveryPlace(function);
    EndGroup();
    EXPECT_GT(Tell().guarded, 0U);
}

TEST_F(Sweep, FindsRandomCallsHarmlessWhileThePlatformFails) {
    constexpr int calls = 100'000;
    BeginGroup();
    for (std::size_t function = 0; function < functions.size(); ++function)
        RunOneOf(function, functions[function].startsThreads ? std::vector<std::size_t>{} : UsualArguments(function));
    Simulator::BalanceSnapshot before;
    for (int i = 0; i < calls && !HasFailure(); ++i) {
        if (i % static_cast<int>(kCallsInGroup) == 0)
            NextGroup();
        if (i == calls / 10)
            before = Settled();
        SweptCall call = RandomCall(RandomFunction());
        if (StartsThreads(call))
            call.arguments.front() = ValueNamed("const dom");
        AdvanceSeconds(static_cast<std::int64_t>(dice.Below(30)));
        Run(call);
    }
    EndGroup();
    ExpectNoGrowth(before);
    const Tally all = Tell();
    EXPECT_GT(all.faults, 1'000U);
    EXPECT_GT(all.guarded, calls / (2 * guardedOneIn));
}

TEST_F(Sweep, FindsTheDriverThreadsHarmlessWithEveryValueForAFolder) {
    WarmUpThreads();
    const Simulator::BalanceSnapshot before = Settled();
    for (const std::size_t function : ThreadFunctions()) {
        for (std::size_t i = 0; i < 2 * values.size() && !HasFailure(); ++i) {
            SweptCall call{function, UsualArguments(function)};
            call.arguments[1 + i / values.size()] = i % values.size();
            RunOnNewMachine(call);
        }
    }
    ExpectNoGrowth(before);
    (void)Tell();
}

TEST_F(Sweep, FindsTheDriverThreadsHarmlessWhileThePlatformFails) {
    constexpr int calls = 150;
    WarmUpThreads();
    const Simulator::BalanceSnapshot before = Settled();
    for (const std::size_t function : ThreadFunctions()) {
        for (int i = 0; i < calls && !HasFailure(); ++i) {
            SweptCall call = RandomCall(function);
            call.arguments.resize(std::max<std::size_t>(1, call.arguments.size()));
            call.arguments.front() = ValueNamed(kDomValue);
            if (!call.fault)
                call.fault = RandomFault(function);
            RunOnNewMachine(call);
        }
    }
    ExpectNoGrowth(before);
    EXPECT_GT(Tell().faults, 50U);
}

}  // namespace
