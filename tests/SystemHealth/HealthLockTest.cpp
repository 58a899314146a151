// The lock of the health subsystem: an iteration holds it for the whole of its evaluation, and not while it reads the
// configuration, asks the driver or logs.

#include <atomic>
#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Event.h"
#include "IterationFixture.h"
#include "Patience.h"
#include "WindowsFunctions.h"
#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

SIMULATOR_FUNCTION(EnterCriticalSection, "KERNEL32.dll", CannotFail);

using namespace Health;
using Points = std::vector<std::string>;

/// Tells of each line before it collects it.
class ToldLog : public LogCollector {
public:
    explicit ToldLog(std::function<void(const std::string &)> tell) : m_tell(std::move(tell)) {}

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override {
        m_tell(message.utf8_string());
        LogCollector::DoLogRecord(level, message, info);
    }

private:
    std::function<void(const std::string &)> m_tell;
};

/// Notes at each point of an iteration whether somebody holds the lock: whenever something is traced, logged, asked of
/// the driver, or read from a file.
class HealthLock : public IterationFixture, protected VtaCore::Control::Observer {
protected:
    HealthLock() {
        simulation().GetJournal().Mute("EnterCriticalSection");
        simulation().Functions().Put<EnterCriticalSection>([this](const auto &next, CRITICAL_SECTION *section) {
            OnEnter(section);
            next(section);
            if (section == m_lock && GetCurrentThreadId() == m_reader)
                m_readerEntered = true;
        });
        FindLock();
    }
    ~HealthLock() override {
        m_reader = 0;
        VtaCore::Control::SetObserver(nullptr);
    }

    int CheckNoting(const std::string &state = "Deactivated", const std::string &policy = "") {
        Begin();
        const ToldLog told([this](const std::string &line) { Note(line); });
        const int action = Check(state, policy);
        VtaCore::Control::SetObserver(nullptr);
        driver().onCall = nullptr;
        return action;
    }

    /// Runs `work` on another thread while this one holds the lock, and `meanwhile` here once it waits for the lock.
    void RunBehindTheLock(const std::function<void()> &work, const std::function<void()> &meanwhile) {
        EnterTheLock();
        Worker worker([&] {
            m_reader = GetCurrentThreadId();
            work();
        });
        EXPECT_TRUE(m_readerAsks.Wait(kPatienceMs)) << "it does not take the lock";
        meanwhile();
        EXPECT_FALSE(m_readerEntered);
        LeaveTheLock();
        EXPECT_TRUE(worker.EndsWithin(kPatienceMs));
        EXPECT_TRUE(m_readerEntered);
    }

    /// The points whose names begin so, of which there is one at least, find the lock held, or free.
    void ExpectHeldAt(const Points &beginnings) const { ExpectAt(m_held, m_free, beginnings); }
    void ExpectFreeAt(const Points &beginnings) const { ExpectAt(m_free, m_held, beginnings); }
    [[nodiscard]] const Points &Held() const { return m_held; }

    /// Is told of each point.
    std::function<void(const std::string &)> onPoint;
    /// The thread that reads the metrics, its own number.
    std::atomic<DWORD> m_reader{0};
    Simulator::Event m_readerAsks;
    std::atomic<bool> m_readerEntered{false};

private:
    void OnTrace(const VtaCore::Control::TraceLine &line) override { Note(line.message.utf8_string()); }

    /// The lock is what a read-out enters.
    void FindLock() {
        VtaCore::Control::EnableTrace("*", false);
        m_reader = GetCurrentThreadId();
        lua.Run("f.GetSysHealthMetrics()");
        m_reader = 0;
        EXPECT_EQ(m_entered.size(), 1U) << "which of them is the lock?";
        m_lock = m_entered.empty() ? nullptr : m_entered.front();
    }
    void OnEnter(CRITICAL_SECTION *section) {
        if (GetCurrentThreadId() != m_reader)
            return;
        if (m_lock == nullptr)
            m_entered.push_back(section);
        else if (section == m_lock)
            m_readerAsks.Set();
    }
    void Begin() {
        // All but the component of the read-outs: they would wait for the observer.
        VtaCore::Control::EnableTrace("*", true);
        VtaCore::Control::EnableTrace("SysHealth.metr", false);
        simulation().Functions().Put<Simulator::System::fopen>(
            [this](const auto &next, const char *path, const char *mode) {
                Note(std::string("fopen ") + mode);
                return next(path, mode);
            });
        simulation().Functions().Put<Simulator::System::fgets>(
            [this](const auto &next, char *line, int size, std::FILE *file) {
                Note("fgets");
                return next(line, size, file);
            });
        driver().onCall = [this](Vti::Driver &, const std::string &call) { Note(call); };
        VtaCore::Control::SetObserver(this);
        m_held.clear();
        m_free.clear();
    }
    void Note(const std::string &point) {
        (IsFree() ? m_free : m_held).push_back(point);
        if (onPoint)
            onPoint(point);
    }
    void EnterTheLock() {
        const Simulator::InsideSimulator inside;
        ::EnterCriticalSection(m_lock);
    }
    void LeaveTheLock() {
        const Simulator::InsideSimulator inside;
        LeaveCriticalSection(m_lock);
    }
    /// Asked on another thread, since its owner may enter it again.
    bool IsFree() {
        bool isFree = false;
        Worker asker([&] {
            const Simulator::InsideSimulator inside;
            isFree = TryEnterCriticalSection(m_lock) != FALSE;
            if (isFree)
                LeaveCriticalSection(m_lock);
        });
        EXPECT_TRUE(asker.EndsWithin(kPatienceMs));
        return isFree;
    }
    static void ExpectAt(const Points &there, const Points &notThere, const Points &beginnings) {
        for (const std::string &beginning : beginnings) {
            EXPECT_TRUE(HasBeginning(there, beginning));
            EXPECT_FALSE(HasBeginning(notThere, beginning)) << beginning;
        }
    }

    std::vector<CRITICAL_SECTION *> m_entered;
    CRITICAL_SECTION *m_lock = nullptr;
    Points m_held;
    Points m_free;
};

TEST_F(HealthLock, IsHeldFromTheFirstToTheLastLineOfAnEvaluation) {
    WriteConfig(kRunQueue);
    machine().processorQueue = 51;
    ASSERT_EQ(CheckNoting(), kFailOpen);
    const std::string exceeded =
        "runnable_processes_per_cpu_pct value of 51.000000 exceeds threshold of 50.000000 (1.000000 x 50.000000) ";
    EXPECT_EQ(Held(),
              (Points{"loadBackoffState() backoff_wait=0 last_check=0", "rqlen=51.000000 numCpus=4 rqlen_pct=51.000000",
                      exceeded, "clearBackoffState() cleared backoff state",
                      "SysHealth transitioning to Fail-Open, metrics over threshold = 1"}));
    ASSERT_EQ(CheckNoting("Activated"), kFailOpen);
    ExpectHeldAt({"loadBackoffState()", "rqlen=", "saveBackoffState()", "SysHealth initializing backoff",
                  "SysHealth in backoff period"});
}

TEST_F(HealthLock, MakesAReadOutWaitForTheWholeEvaluation) {
    WriteConfig(kRunQueue);
    machine().processorQueue = 57;
    LuaState state;
    Open(state);
    ASSERT_EQ(luaL_loadstring(state, "return select(2, SLB.filter.GetSysHealthMetrics())[1].value"), LUA_OK);
    std::atomic<int> status{-1};
    std::unique_ptr<Worker> reader;
    bool enteredMeanwhile = true;
    onPoint = [&](const std::string &point) {
        if (!reader && point.starts_with("loadBackoffState()")) {
            reader = std::make_unique<Worker>([&] {
                m_reader = GetCurrentThreadId();
                status = lua_pcall(state, 0, 1, 0);
            });
            EXPECT_TRUE(m_readerAsks.Wait(kPatienceMs));
        } else if (reader && point.starts_with("SysHealth transitioning")) {
            enteredMeanwhile = m_readerEntered;
        }
    };
    ASSERT_EQ(CheckNoting(), kFailOpen);
    ASSERT_TRUE(reader);
    ASSERT_TRUE(reader->EndsWithin(kPatienceMs));
    ASSERT_EQ(status, LUA_OK);
    EXPECT_TRUE(m_readerEntered);
    EXPECT_FALSE(enteredMeanwhile);
    ExpectHeldAt({"loadBackoffState()", "SysHealth transitioning"});
    EXPECT_EQ(lua_tointeger(state, -1), 57) << "the reader sees the finished table";
}

TEST_F(HealthLock, MakesAReadOutOfTheFlagWait) {
    WriteConfig(kRunQueue);
    LuaState state;
    Open(state);
    RunBehindTheLock([&] { state.Run("enabled = SLB.filter.GetSysHealthEnabled()"); },
                     [this] { EXPECT_EQ(Check(), kNormal); });
    EXPECT_EQ(state.Eval("enabled"), "true") << "it sees what has happened while it waited";
}

TEST_F(HealthLock, MakesAReadOutOfThePortWait) {
    WriteConfig(kPort);
    LuaState state;
    Open(state);
    RunBehindTheLock([&] { state.Run("isKnown, port = SLB.filter.GetScanMetricPort()"); },
                     [this] { EXPECT_EQ(Check(), kNormal); });
    EXPECT_EQ(state.Eval("isKnown") + " " + state.Eval("port"), "true 443");
}

TEST_F(HealthLock, IsTakenToSetTheFlag) {
    const char *const enabled = "f.GetSysHealthEnabled()";
    WriteConfig(kRunQueue);
    ASSERT_EQ(Check(), kNormal);
    RemoveConfig();
    LuaState state;
    Open(state);
    SLB3::Control::PushInstance(state, "SLB.Dom", &dom);
    lua_setglobal(state, "dom");
    RunBehindTheLock([&] { state.Run("SLB.filter.CheckSystemHealthMetrics(dom, 'Deactivated', '')"); },
                     [&] { EXPECT_EQ(lua.Eval(enabled), "true") << "it is set under the lock"; });
    EXPECT_EQ(lua.Eval(enabled), "false");
}

TEST_F(HealthLock, IsFreeWhileTheFileIsReadAndTheValuesInUseAreWritten) {
    WriteConfig(kRunQueue + kInterval);
    ASSERT_EQ(CheckNoting(), kNormal);
    ExpectFreeAt({"cloud_config size", "fopen r", "fgets", "readSystemHealthConfig returning", "fopen w"});
}

TEST_F(HealthLock, IsFreeWhileAPolicyIsRead) {
    ASSERT_EQ(CheckNoting("Deactivated", R"({"SYS_THR_RUNQ": {"value": 50}, "SYS_CONF_RECOVER_FACTOR": 101})"),
              kNormal);
    ExpectFreeAt({"cloud_config size", "stored ", " value out of boundary", "fopen w"});
}

TEST_F(HealthLock, IsFreeDuringTheCallsOfTheDriver) {
    WriteConfig(kDriverMetrics);
    ASSERT_EQ(CheckNoting(), kNormal);
    ExpectFreeAt({"vti_open", "setting scan config", "vti_set_scan_monitoring", "Collecting scan metrics",
                  "vti_get_scan_metrics", "vti_close"});
    driver().faults["vti_get_scan_metrics"] = {.status = 5, .error = "no answer"};
    ASSERT_EQ(CheckNoting(), kNormal);
    ExpectFreeAt({"vti_get_scan_metrics", "vti_get_error", "vti_get_scan_metrics failed", "vti_close"});
}

TEST_F(HealthLock, IsFreeWhereTheSubsystemIsSwitchedOff) {
    RemoveConfig();
    ASSERT_EQ(CheckNoting(), kDisabled);
    ExpectFreeAt({"clearBackoffState() cleared backoff state", "Setting status: disabled"});
    EXPECT_EQ(Held(), Points());
    WriteConfig(kEstablished);
    ASSERT_EQ(CheckNoting(), kDisabled);
    ExpectFreeAt({"SysHealth - Conn Established enabled but monitoring port not configured",
                  "clearBackoffState() cleared backoff state"});
    EXPECT_EQ(Held(), Points());
}

TEST_F(HealthLock, IsFreeWhenTheLongLineIsWritten) {
    WriteConfig(kRunQueue);
    ASSERT_EQ(CheckNoting(), kNormal);
    ExpectFreeAt({"SysHealth: rc=0", "Setting status: enabled"});
}

}  // namespace
