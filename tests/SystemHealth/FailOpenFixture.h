// Iterations that decide about fail-open.
#pragma once

#include <string>
#include <vector>

#include "IterationFixture.h"

namespace Health {

inline const std::string kSettingEnabled = "Setting status: enabled";
inline const std::string kQueueOver =
    "runnable_processes_per_cpu_pct value of 51.000000 exceeds threshold of 50.000000 "
    "(1.000000 x 50.000000) ";

class FailOpen : public IterationFixture {
protected:
    FailOpen() { WriteConfig(kRunQueue + kInterval); }

    /// The action of a call with these Lua arguments.
    std::string ActionOf(const std::string &arguments) {
        lua.Run("returned = table.pack(f.CheckSystemHealthMetrics(" + arguments + "))");
        EXPECT_EQ(lua.Eval("returned.n"), "1");
        return lua.Eval("returned[1].action");
    }

    std::string Enabled() { return lua.Eval("f.GetSysHealthEnabled()"); }

    static std::vector<std::string> EngineTraces() { return TakeTracedMessages("SysHealth.eng"); }

    /// Puts the queue past its limit, or not.
    void Overload(bool yes) { machine().processorQueue = yes ? 51 : 1; }

    /// Goes through each transition of the states once.
    void TakeEachWay() {
        constexpr int growth = 30 * 60 + 5;
        Overload(true);
        EXPECT_EQ(CheckAt(0), kFailOpen);
        EXPECT_EQ(CheckAt(1, "Activated"), kFailOpen);
        EXPECT_EQ(CheckAt(growth, "Activated"), kFailOpen);
        Overload(false);
        EXPECT_EQ(CheckAt(growth + 60 * 60 - 30, "Activated"), kFailOpen);  // otherwise the interval would be too long
        EXPECT_EQ(CheckAt(growth + 60 * 60 + 5, "Activated"), kNormal);
    }
};

}  // namespace Health
