// A machine with all that the functions of the module touch, the calls of a sweep over them, and the account of what
// they leave behind.
#pragma once

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "InstallFixture.h"
#include "NetworkConfiguration.h"
#include "SweepValues.h"
#include "SweptFunctions.h"

/// Chances, the same for the same seed: FC_SEED, or else GoogleTest's.
class Dice {
public:
    Dice();

    [[nodiscard]] unsigned Seed() const { return m_seed; }
    /// A number from 0 on that is less than `end`.
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

/// A call of the platform or of the driver library that is to fail.
struct SweptFault {
    std::string function;
    unsigned nth = 1;  ///< 0 for every call.
    DWORD code = 0;
};

struct SweptCall {
    std::size_t function = 0;
    std::vector<std::size_t> arguments;  ///< Numbers of values.
    std::optional<SweptFault> fault{};
    bool guarded = false;  ///< On the guarded heap.
    bool onCoroutine = false;
};

/// Says which call is under way when the program crashes, and ends it with the same words when a call takes minutes.
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

    /// What the calls of a group find; what those before have made of the machine is gone.
    void RestoreMachine();
    /// The same, with drivers or without, before each call that starts threads.
    void RestoreDrivers();

    /// Makes one call and looks at all that it answers.
    void Run(const SweptCall &call);
    void BeginGroup();
    /// What was left since the group began is no more than what is written as staying. It is given back.
    void EndGroup();
    /// The module's memory now, when it keeps as little as it can.
    Simulator::BalanceSnapshot Settled();

    /// A fault for that function, among the calls that it was seen to make.
    std::optional<SweptFault> RandomFault(std::size_t function);
    [[nodiscard]] std::string Describe(const SweptCall &call) const;
    [[nodiscard]] std::size_t FunctionNamed(const std::string &name) const;
    [[nodiscard]] std::size_t ValueNamed(const std::string &name) const;
    /// The numbers of a usual call's values.
    [[nodiscard]] std::vector<std::size_t> UsualArguments(std::size_t function) const;
    struct Tally {
        unsigned calls = 0;
        unsigned errors = 0;
        unsigned faults = 0;   ///< Calls that met one.
        unsigned guarded = 0;  ///< Calls.
    };
    /// Prints the calls of each function so far. @return those of all.
    Tally Tell() const;
    void ExpectNoGrowth(const Simulator::BalanceSnapshot &before);

    Dice dice;
    std::unique_ptr<SweepObjects> objects;
    std::vector<SweepValue> values;
    const std::vector<SweptFunction> &functions = SweptFunctions();

private:
    /// How many things of a kind may stay.
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
    /// Notes what may stay, and which calls of the platform there are.
    void Account(const SweptCall &call, bool raised, bool answeredTrue, unsigned faultHits);
    void Learn(std::size_t function);
    void Forget();
    void GiveBack(const std::vector<Simulator::BalanceItem> &items);

    Simulator::NetworkState m_network;
    std::function<void(const std::wstring &)> m_onInstallSection;
    std::vector<Tally> m_tallies{functions.size()};
    /// By function: how often it calls what, at most.
    std::vector<std::map<std::string, unsigned>> m_met{functions.size()};
    Stays m_stays;
    bool m_seemsOld = false;     ///< The system, to the module, which asks for its version but once.
    bool m_lockMayStay = false;  ///< That of the network.
    std::string m_group;         ///< The calls since the last account.
    Simulator::BalanceSnapshot m_before;
    int m_openDriverHandles = 0;
    std::size_t m_luaReferences = 0;
    CallWatch m_watch;
};
