// A machine with everything that the functions of the module use, the calls of a sweep over them, and the account of
// what they leave behind.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "InstallFixture.h"
#include "NetworkConfiguration.h"
#include "SweepValues.h"
#include "SweptFunctions.h"

/// Random numbers, reproducible by the seed: FC_SEED, or else GoogleTest's.
class Dice {
public:
    Dice();

    [[nodiscard]] unsigned Seed() const { return m_seed; }
    /// A random number from 0 up to, but not including, `end`.
    std::size_t Below(std::size_t end) { return m_random() % end; }
    bool OneIn(std::size_t chances) { return Below(chances) == 0; }
    template <class Choices>
    const auto &OneOf(const Choices &choices) {
        return choices[Below(std::size(choices))];
    }

private:
    unsigned m_seed;
    std::mt19937 m_random;
};

/// A call of the platform or of the driver library that should fail.
struct SweptFault {
    std::string function;
    unsigned nth = 1;  ///< 0 for every call.
    DWORD code = 0;
};

struct SweptCall {
    std::size_t function = 0;
    std::vector<std::size_t> arguments;  ///< Indices of values.
    std::optional<SweptFault> fault{};
    bool guarded = false;  ///< On the guarded heap.
    bool onCoroutine = false;
};

/// Reports the current call when the program crashes, and ends the program with the same report when a call takes
/// minutes.
class CallWatch {
public:
    CallWatch();
    ~CallWatch();
    CallWatch(const CallWatch &) = delete;
    CallWatch &operator=(const CallWatch &) = delete;

    static void Begin(const std::string &call);

private:
    void Watch() const;

    std::atomic<bool> m_ended{false};
    std::thread m_thread;
};

class SweepFixture : public InstallFixture {
protected:
    static constexpr std::size_t kCallsInGroup = 200;

    SweepFixture();
    ~SweepFixture() override;

    /// The state for a group of calls; the effects of earlier groups on the machine are undone.
    void RestoreMachine();
    /// The same, with or without drivers, before each call that starts threads.
    void RestoreDrivers();

    /// Makes one call and checks all that it returns.
    void Run(const SweptCall &call);
    void BeginGroup();
    /// Expects that no more was left since the group began than what is listed as staying. Releases it.
    void EndGroup();
    /// The module's memory now, reduced to what it must keep.
    Simulator::BalanceSnapshot Settled();

    /// A fault for that function, at one of the calls that it was observed to make.
    std::optional<SweptFault> RandomFault(std::size_t function);
    [[nodiscard]] std::string Describe(const SweptCall &call) const;
    [[nodiscard]] std::size_t FunctionNamed(const std::string &name) const;
    [[nodiscard]] std::size_t ValueNamed(const std::string &name) const;
    /// The indices of a usual call's values.
    [[nodiscard]] std::vector<std::size_t> UsualArguments(std::size_t function) const;
    struct Tally {
        unsigned calls = 0;
        unsigned errors = 0;
        unsigned faults = 0;   ///< Calls that met a fault.
        unsigned guarded = 0;  ///< Calls.
    };
    /// Prints the calls of each function so far. @return the total.
    Tally Tell() const;
    void ExpectNoGrowth(const Simulator::BalanceSnapshot &before);

    Dice dice;
    std::unique_ptr<SweepObjects> objects;
    std::vector<SweepValue> values;
    const std::vector<SweptFunction> &functions = SweptFunctions();

private:
    /// How many resources of a kind may stay.
    struct Stay {
        std::size_t least = 0;
        std::size_t most = 0;
    };
    using Stays = std::map<std::string, Stay>;

    void PutValues();
    void RestoreServices();
    void RestoreRegistry();
    void RestoreDriverLibrary();
    void RemoveInstalledInfs();

    /// Pushes the copy of the last argument, the function and the arguments. @return the arguments' kinds.
    std::vector<AgentKind> Push(lua_State *L, const SweptCall &call);
    /// @return what lua_pcall does.
    int CallProtected(lua_State *L, const SweptCall &call);
    void AwaitThreads(int objectsBefore, const Simulator::BalanceSnapshot &before);
    /// @return null for a fault of the driver library.
    Simulator::FaultPlanHandle Plan(const SweptFault &fault);
    static unsigned FaultHits(const SweptFault &fault, const Simulator::FaultPlanHandle &plan);
    /// Records what may stay, and which calls of the platform there are.
    void Account(const SweptCall &call, bool raised, bool answeredTrue, unsigned faultHits);
    void Learn(std::size_t function);
    void Forget();
    void GiveBack(const std::vector<Simulator::BalanceItem> &items);

    Simulator::NetworkState m_network;
    std::function<void(const std::wstring &)> m_onInstallSection;
    std::vector<Tally> m_tallies{functions.size()};
    /// By function: which calls it makes, and how often at most.
    std::vector<std::map<std::string, unsigned>> m_met{functions.size()};
    Stays m_stays;
    bool m_seemsOld = false;     ///< Windows, whose version the module queries only once.
    bool m_lockMayStay = false;  ///< The network's write lock.
    std::string m_group;         ///< The calls since the last account.
    Simulator::BalanceSnapshot m_before;
    int m_openDriverHandles = 0;
    std::size_t m_luaReferences = 0;
    CallWatch m_watch;
};
