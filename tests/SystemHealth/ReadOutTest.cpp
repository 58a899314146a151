// What scripts read about the last iteration.

#include <atomic>
#include <functional>
#include <limits>
#include <utility>

#include "CallScope.h"
#include "ImportTable.h"
#include "IterationFixture.h"
#include "TracedPlaces.h"

namespace {

using namespace Health;

class HealthReadOut : public IterationFixture {
protected:
    /// All results of a function, as Lua shows them.
    std::string Results(const std::string &function) {
        lua.Run(R"(
            local results = table.pack(f.)" +
                function + R"()
            for i = 1, results.n do results[i] = tostring(results[i]) end
            shown = table.concat(results, ' '))");
        return lua.Eval("shown");
    }
    std::string Port() { return Results("GetScanMetricPort()"); }
    std::string Enabled() { return Results("GetSysHealthEnabled()"); }

    static std::vector<std::string> Traced() {
        std::vector<std::string> lines;
        for (const TracedLine &line : TakeTracedLines())
            lines.push_back(line.component + ": " + line.message);
        return lines;
    }
};

TEST_F(HealthReadOut, BeforeTheFirstIterationTheSubsystemIsOff) {
    EXPECT_EQ(Enabled(), "false");
    EXPECT_EQ(Port(), "false 0");
}

TEST_F(HealthReadOut, BeforeAConfigurationIsReadThereIsNoPort) {
    ASSERT_EQ(Check("bad"), kBadArgument);
    EXPECT_EQ(Enabled(), "true") << "the iteration counts, although it read nothing";
    EXPECT_EQ(Port(), "false 0");
}

TEST_F(HealthReadOut, BeforeTheFirstIterationMetricsHaveTheirInitialThresholds) {
    const std::vector<ReadOut> expected{{"rqpct", 0, 50},   {"refusalpct", 0, 10}, {"estab", 0, 50},
                                        {"scanmb", 0, 100}, {"frepct", 0, 100},    {"delta_t", 0, 100}};
    EXPECT_EQ(Metrics(), expected);
}

TEST_F(HealthReadOut, MetricsAreTrueAndSevenTablesWithOnlyTheirFields) {
    lua.Run(R"(
        local results = table.pack(f.GetSysHealthMetrics())
        assert(results.n == 2 and results[1] == true)
        local rows, keys = results[2], 0
        for key in pairs(rows) do keys = keys + 1 end
        assert(keys == 7 and #rows == 7)
        for i, row in ipairs(rows) do
            local names = {}
            for name in pairs(row) do names[#names + 1] = name end
            table.sort(names)
            assert(table.concat(names, ' ') == (i < 7 and 'name threshold value' or 'cpu_count'))
        end
        for i = 1, 6 do
            assert(type(rows[i].name) == 'string')
            assert(math.type == nil or math.type(rows[i].value) == 'integer')
            assert(type(rows[i].value) == 'number' and type(rows[i].threshold) == 'number')
        end)");
}

TEST_F(HealthReadOut, ThereAreSevenItemsWhicheverMetricsAreEnabled) {
    for (const std::string &config : {kPort, kRunQueue, kDriverMetrics + kRunQueue + kFreeMemory}) {
        WriteConfig(config);
        ASSERT_EQ(Check(), kNormal);
        EXPECT_EQ(Metrics().size(), 6u) << "and the processors, which have their own test";
    }
}

TEST_F(HealthReadOut, ValuesAreTruncated) {
    WriteConfig(kRunQueue + kFreeMemory);
    machine().processorQueue = 7.9;
    machine().memoryTotal = 10'000 << 10;
    machine().memoryAvailable = 9999 << 10;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Metric("rqpct").value, 7);
    EXPECT_EQ(Metric("frepct").value, 99) << "of 99.99";
    EXPECT_EQ(lua.Eval("metrics[1].value == 7 and metrics[5].value == 99"), "true") << "fractions are cut off";
}

TEST_F(HealthReadOut, NegativeValuesAreTruncatedTowardZero) {
    WriteConfig(kRunQueue);
    machine().processorQueue = -7.9;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Metric("rqpct").value, -7);
}

TEST_F(HealthReadOut, ThresholdsAreTruncated) {
    WriteConfig("SYSTEM_RUNQ_PCT_THRESHOLD=49.75\n");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 1, 49}));
}

TEST_F(HealthReadOut, ValuesWithoutA64BitIntegerPartAreTheLeastIntegerAndRaiseNoError) {
    WriteConfig(kRunQueue);
    for (const double queue : {std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity(),
                               -std::numeric_limits<double>::infinity(), 1e300}) {
        machine().processorQueue = queue;
        EXPECT_EQ(Check(), queue > 50 ? kFailOpen : kNormal);
        EXPECT_EQ(lua.ErrorOf("metrics = select(2, f.GetSysHealthMetrics()) assert(#metrics == 7)"), "");
        EXPECT_EQ(lua.Eval("metrics[1].value == -2^63"), "true") << queue;
        ExpectLockFree();
    }
}

TEST_F(HealthReadOut, ThresholdsAreShownWithoutAFactor) {
    WriteConfig(kRunQueue + kFreeMemory + "SYSTEM_RECOVERY_FACTOR=50\nSYSTEM_MIN_ACT_DURATION=1\n");
    machine().processorQueue = 40;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckActivatedAt(60), kFailOpen);
    ASSERT_EQ(FieldOf(TakeLongLine(), "rqpct"), "40.000(25.000)") << "the recovery check had a factor";
    EXPECT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 40, 50}));
    EXPECT_EQ(Metric("frepct"), (ReadOut{"frepct", 50, 20}));
}

TEST_F(HealthReadOut, TheProcessorsAreCountedAtTheReadOut) {
    const auto processors = [this] {
        lua.Run("done, metrics = f.GetSysHealthMetrics()");
        return lua.Eval("metrics[7].cpu_count");
    };
    EXPECT_EQ(processors(), "4");
    machine().processorCount = 64;
    EXPECT_EQ(processors(), "64");
    machine().processorCount = 0;
    EXPECT_EQ(processors(), "0") << "a zero is kept";
}

TEST_F(HealthReadOut, OnlyTheProcessorsAreSampled) {
    WriteConfig(kDriverMetrics + kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    Forget();
    (void)TakeTracedLines();
    const std::vector<ReadOut> before = Metrics();
    (void)Port();
    (void)Enabled();
    EXPECT_EQ(Metrics(), before);
    const Simulator::Journal &journal = simulation().GetJournal();
    EXPECT_EQ(journal.Count("GetSystemInfo"), 2u);
    for (const char *function : {"PdhOpenQueryW", "GlobalMemoryStatusEx", "Sleep"})
        EXPECT_EQ(journal.Count(function), 0u) << function;
    EXPECT_EQ(journal.Count("GetSystemTimeAsFileTime"), TakeTracedLines().size()) << "each trace has a time";
    EXPECT_TRUE(TakeDriverCalls().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(HealthReadOut, AfterADisabledIterationOnlyTheMetricsAreStillShown) {
    WriteConfig(kPort + kRunQueue);
    machine().processorQueue = 7;
    ASSERT_EQ(Check(), kNormal);
    ASSERT_EQ(Enabled(), "true");
    ASSERT_EQ(Port(), "true 443");
    WriteConfig(kPort + kRunQueue + "SYSTEM_DISABLE_FAIL_OPEN=1\n");
    ASSERT_EQ(Check(), kDisabled);
    EXPECT_EQ(Enabled(), "false");
    EXPECT_EQ(Port(), "false 0") << "although a port is configured";
    EXPECT_EQ(Metric("rqpct"), (ReadOut{"rqpct", 7, 50}));
}

TEST_F(HealthReadOut, WithoutAConfiguredPortThereIsNone) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Port(), "false 0");
}

TEST_F(HealthReadOut, ThePortIsTheConfiguredOneAndNotTheLatchedOne) {
    WriteConfig(kPort);
    ASSERT_EQ(Check(), kNormal);
    WriteConfig("SYSTEM_CONNECTION_REFUSAL_PORT=8443.75\n");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Port(), "true 8443");
    EXPECT_EQ(FieldOf(TakeLongLine(), "port"), "443") << "the latched one";
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Port(), "false 0");
}

TEST_F(HealthReadOut, APortOfZeroFromAPolicyIsAPort) {
    ASSERT_EQ(Check("Deactivated", R"({"SYS_CONF_CONN_REFUSAL_PORT": 0})"), kNormal);
    EXPECT_EQ(Port(), "true 0");
}

TEST_F(HealthReadOut, ThePortIsShownWhenTheDriverIsUnreachable) {
    WriteConfig(kPort);
    driver().present = false;
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Port(), "true 443");
}

TEST_F(HealthReadOut, ThePortOfTheLastReadingSurvivesFailedIterations) {
    WriteConfig(kPort);
    machine().processorCount = 0;
    ASSERT_EQ(Check(), kCollectFailed);
    EXPECT_EQ(Port(), "true 443");
    ASSERT_EQ(Check("bad"), kBadArgument);
    EXPECT_EQ(Port(), "true 443") << "nothing new was read";
}

TEST_F(HealthReadOut, EachFunctionTracesItsEntryAndItsExit) {
    WriteConfig(kPort);
    ASSERT_EQ(Check(), kNormal);
    Forget();
    lua.Run("f.GetSysHealthMetrics()");
    EXPECT_EQ(Traced(), (std::vector<std::string>{"SysHealth.metr: GetSysHealthMetrics() called",
                                                  "SysHealth.metr: GetSysHealthMetrics() returning"}));
    lua.Run("f.GetSysHealthEnabled()");
    EXPECT_EQ(Traced(), (std::vector<std::string>{"SysHealth.eng: GetSysHealthEnabled() called",
                                                  "SysHealth.eng: GetSysHealthEnabled() returning 1"}));
    lua.Run("f.GetScanMetricPort()");
    EXPECT_EQ(Traced(), (std::vector<std::string>{"SysHealth.metr: GetScanMetricPort() called",
                                                  "SysHealth.eng: GetScanMetricPort() returning"}));
}

TEST_F(HealthReadOut, TheTracedFlagIsZeroWhenOff) {
    lua.Run("f.GetSysHealthEnabled()");
    EXPECT_EQ(Traced(), (std::vector<std::string>{"SysHealth.eng: GetSysHealthEnabled() called",
                                                  "SysHealth.eng: GetSysHealthEnabled() returning 0"}));
}

TEST_F(HealthReadOut, TracesNameTheirFunctionAndFile) {
    lua.Run("f.GetSysHealthMetrics() f.GetSysHealthEnabled() f.GetScanMetricPort()");
    ExpectTraced(TakeTracedLines(), {{"GetSysHealthMetrics() called", "GetSysHealthMetrics", "GetSysHealth.cpp"},
                                     {"GetSysHealthMetrics() returning", "GetSysHealthMetrics", "GetSysHealth.cpp"},
                                     {"GetSysHealthEnabled() called", "GetSysHealthEnabled", "GetSysHealth.cpp"},
                                     {"GetSysHealthEnabled() returning", "GetSysHealthEnabled", "GetSysHealth.cpp"},
                                     {"GetScanMetricPort() called", "GetScanMetricPort", "ScanMetrics.cpp"},
                                     {"GetScanMetricPort() returning", "GetScanMetricPort", "ScanMetrics.cpp"}});
}

TEST_F(HealthReadOut, ArgumentsAreIgnored) {
    EXPECT_EQ(Results("GetSysHealthEnabled(1, {}, 'x')"), "false");
    EXPECT_EQ(Results("GetScanMetricPort(nil, 5)"), "false 0");
    EXPECT_EQ(lua.Eval("select('#', f.GetSysHealthMetrics(1, 2, 3))"), "2");
}

TEST_F(HealthReadOut, LuaWithoutMemoryIsALuaErrorThatLeavesTheLockFree) {
    lua.Run("read = f.GetSysHealthMetrics");
    int failures = 0;
    int status = LUA_OK;
    while ((status = CallWithShortMemory(lua, "read", failures)) != LUA_OK && failures < 1000) {
        EXPECT_EQ(status, LUA_ERRMEM);
        ExpectLockFree();
        EXPECT_STREQ(lua_tostring(lua, -1), "not enough memory");
        lua_settop(lua, 0);
        lua_gc(lua, LUA_GCCOLLECT, 0);
        ++failures;
    }
    EXPECT_GE(failures, 8) << "eight tables need memory";
    EXPECT_LT(failures, 1000);
}

/// Replaces the module's lua_pushboolean, to run an action before it, once.
struct BeforePush {
    static inline std::function<void()> happens;
    static void Push(lua_State *L, int boolean) {
        if (const std::function<void()> event = std::exchange(happens, nullptr))
            event();
        lua_pushboolean(L, boolean);
    }
};

TEST_F(HealthReadOut, APortRemovedDuringTheReadOutIsShownCompletelyOrNotAtAll) {
    WriteConfig(kPort);
    ASSERT_EQ(Check(), kNormal);
    const Simulator::Redirection redirection(GetModuleHandleW(L"fc.dll"), "lua_pushboolean",
                                             reinterpret_cast<void *>(&BeforePush::Push));
    ASSERT_TRUE(redirection.Found());
    BeforePush::happens = [this] {
        WriteConfig(kRunQueue);
        EXPECT_EQ(Check(), kNormal);
    };
    EXPECT_EQ(Port(), "true 443") << "read before it was removed";
    EXPECT_FALSE(BeforePush::happens) << "it happened";
    EXPECT_EQ(Port(), "false 0");
}

TEST_F(HealthReadOut, AllLuaStatesOfTheProcessSeeTheSame) {
    WriteConfig(kPort);
    ASSERT_EQ(Check(), kNormal);
    LuaState other;
    Open(other);
    EXPECT_EQ(other.Eval("select(2, SLB.filter.GetScanMetricPort())"), "443");
}

// ---- Finalizers of scripts, which run whenever Lua creates a table

/// Runs a complete collection after each table creation from now on: all pending finalizers run within it.
constexpr char kCollectAtEachTable[] = R"(
    collectgarbage('setpause', 0)
    collectgarbage('setstepmul', 1000000)
    function discard(finalizer) setmetatable({}, {__gc = finalizer}) end)";

TEST_F(HealthReadOut, ASlowFinalizerDoesNotDelayOtherReadOuts) {
    struct Gate {
        std::atomic<bool> isEntered = false;
        std::atomic<bool> isOpen = false;
        static int Pass(lua_State *L) {
            const Simulator::InsideSimulator inside;
            auto &gate = *static_cast<Gate *>(lua_touserdata(L, lua_upvalueindex(1)));
            gate.isEntered = true;
            while (!gate.isOpen)
                ::Sleep(1);
            return 0;
        }
    };
    Gate gate;
    LuaState slow;
    Open(slow);
    lua_pushlightuserdata(slow, &gate);
    lua_pushcclosure(slow, &Gate::Pass, 1);
    lua_setglobal(slow, "pass");
    slow.Run(kCollectAtEachTable);
    Worker worker([&] {
        slow.Run(R"(
            local get, collect = SLB.filter.GetSysHealthMetrics, collectgarbage
            collect('stop')
            discard(pass)
            collect('restart')
            local done, metrics = get()
            assert(done == true and #metrics == 7))");
    });
    while (!gate.isEntered && !worker.EndsWithin(1)) {
    }
    EXPECT_TRUE(gate.isEntered) << "the finalizer did not run";
    ExpectLockFree();
    gate.isOpen = true;
    EXPECT_TRUE(worker.EndsWithin(60'000));
}

TEST_F(HealthReadOut, AReadOutDescribesOneIterationEvenIfAFinalizerRunsAnother) {
    lua.Run(kCollectAtEachTable);
    lua.Run(R"(
        iterations = 0
        local function iterate()
            if not iterations then
                return
            end
            iterations = iterations + 1
            local limit = 1 + iterations % 20
            f.CheckSystemHealthMetrics(dom, 'Deactivated', ([[{"SYS_THR_RUNQ": {"value": %d},
                "SYS_THR_FREE_MEM": {"value": %d}, "SYS_THR_MAX_ITERATION_INVL": {"value": %d}}]]):format(
                limit, limit, limit))
            discard(iterate)
        end
        iterate())");
    const std::string error = lua.ErrorOf(R"(
        local before = iterations
        for _ = 1, 20 do
            local done, metrics = f.GetSysHealthMetrics()
            assert(metrics[1].threshold == metrics[5].threshold and metrics[1].threshold == metrics[6].threshold,
                'rows of several iterations')
        end
        assert(iterations >= before + 20, 'the finalizers did not run'))");
    lua.Run("iterations = nil");
    EXPECT_EQ(error, "");
    ExpectLockFree();
}

TEST_F(HealthReadOut, AFinalizerThatRaisesAnErrorFailsOnlyThatReadOut) {
    lua.Run(kCollectAtEachTable);
    for (int i = 0; i < 20; ++i) {
        const std::string error = lua.ErrorOf(R"(
            local get, collect = f.GetSysHealthMetrics, collectgarbage
            collect('stop')
            discard(function() error('spoilt') end)
            collect('restart')
            get())");
        EXPECT_NE(error.find("spoilt"), std::string::npos) << error;
        ExpectLockFree();
        EXPECT_EQ(lua.ErrorOf("assert(#select(2, f.GetSysHealthMetrics()) == 7)"), "");
    }
}

}  // namespace
