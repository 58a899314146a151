// The backoff in the agent's settings: what is read, what is written, and what a restart finds.

#include "IterationFixture.h"

namespace {

using namespace Health;

constexpr char kWaitKey[] = "vtp.filter.SysHealthBackoffWait";
constexpr char kCheckKey[] = "vtp.filter.SysHealthLastRecoveryCheck";

class Backoff : public IterationFixture {
protected:
    Backoff() { WriteConfig(kRunQueue + kInterval); }

    void Store(const std::string &wait, const std::string &check) {
        dom.SettingStore(kWaitKey, wxString::FromUTF8(wait));
        dom.SettingStore(kCheckKey, wxString::FromUTF8(check));
    }

    /// What an iteration in normal filtering finds stored, according to its trace.
    std::string Loaded() {
        Forget();
        EXPECT_EQ(Check(), kNormal);
        std::string loaded;
        for (const TracedLine &line : TakeTracedLines()) {
            if (!line.message.starts_with("loadBackoffState()"))
                continue;
            EXPECT_EQ(line.component, "SysHealth.eng");
            EXPECT_EQ(loaded, "") << "loaded twice";
            loaded = line.message.substr(19);
        }
        return loaded;
    }

    void Restart() {
        Reload();
        lua.Run("f = SLB.filter");
        Forget();
    }

    std::string Stored() const { return Setting(kWaitKey) + " " + Setting(kCheckKey); }
};

TEST_F(Backoff, IsZeroWithoutSettings) {
    EXPECT_EQ(Loaded(), "backoff_wait=0 last_check=0");
    EXPECT_EQ(Stored(), " ") << "loading stores nothing";
}

TEST_F(Backoff, IsReadAgainInEachIterationInEitherState) {
    Store("120", "13344473600000000");
    EXPECT_EQ(Loaded(), "backoff_wait=120 last_check=13344473600000000");
    Store("60", "13344473600000001");
    EXPECT_EQ(Loaded(), "backoff_wait=60 last_check=13344473600000001");
    Store("45", Microseconds(0));
    Forget();
    ASSERT_EQ(CheckAt(60, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth in backoff period, 44 minutes remaining"));
}

TEST_F(Backoff, IsNotReadByIterationsThatEndEarlier) {
    Store("120", "77");
    machine().processorCount = 0;
    ASSERT_EQ(Check(), kCollectFailed);
    ASSERT_EQ(Check("bad"), kBadArgument);
    EXPECT_FALSE(HasBeginning(TakeTracedMessages(), "loadBackoffState()"));
    EXPECT_EQ(Stored(), "120 77");
}

TEST_F(Backoff, AWaitThatIsNotANumberKeepsTheLastValue) {
    Store("120", "5");
    ASSERT_EQ(Loaded(), "backoff_wait=120 last_check=5");
    for (const std::string wait :
         {"", " ", "x", "12x", "12 ", "1.5", "0x10", "--1", "4294967296", "99999999999999999999"}) {
        Store(wait, "6");
        EXPECT_EQ(Loaded(), "backoff_wait=120 last_check=6") << wait;
    }
}

TEST_F(Backoff, ACheckThatIsNotANumberKeepsTheLastValue) {
    Store("120", "5");
    ASSERT_EQ(Loaded(), "backoff_wait=120 last_check=5");
    for (const std::string check : {"", " ", "x", "12x", "12 ", "1.5", "0x10", "18446744073709551616"}) {
        Store("121", check);
        EXPECT_EQ(Loaded(), "backoff_wait=121 last_check=5") << check;
    }
}

TEST_F(Backoff, TheWaitIsParsedIn32BitsAndTheCheckIn64) {
    Store("4294967295", "18446744073709551615");
    EXPECT_EQ(Loaded(), "backoff_wait=4294967295 last_check=18446744073709551615");
    Store("5000000000", "5000000000");
    EXPECT_EQ(Loaded(), "backoff_wait=4294967295 last_check=5000000000");
}

TEST_F(Backoff, ANegativeNumberWrapsInTheWidthItIsParsedIn) {
    Store("-5", "-5");
    EXPECT_EQ(Loaded(), "backoff_wait=4294967291 last_check=18446744073709551611");
}

TEST_F(Backoff, AFreshProcessWithABadWaitStartsOver) {
    for (const std::string wait : {"", "many", "4294967296"}) {
        Restart();
        Store(wait, Microseconds(-7200));
        ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
        EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth initializing backoff, wait=30 minutes"))
            << wait;
        EXPECT_EQ(Stored(), "30 " + Microseconds(0));
    }
}

TEST_F(Backoff, ARestartContinuesWithTheRestOfTheWait) {
    Store("120", Microseconds(0));
    ASSERT_EQ(CheckAt(60, "Activated"), kFailOpen);
    Restart();
    ASSERT_EQ(CheckAt(30 * 60, "Activated"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "backoff"), "120");
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth in backoff period, 90 minutes remaining"));
    Restart();
    ASSERT_EQ(CheckAt(120 * 60, "Activated"), kNormal) << "the first call, so that no interval is past its limit";
    EXPECT_EQ(Stored(), "0 0");
}

TEST_F(Backoff, ARestartContinuesWithTheGrownWait) {
    machine().processorQueue = 51;
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    ASSERT_EQ(CheckAt(1800, "Activated"), kFailOpen);
    ASSERT_EQ(Stored(), "60 " + Microseconds(1800));
    Restart();
    ASSERT_EQ(CheckAt(1800 + 3600, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"),
                    "SysHealth backoff increased, metrics over threshold = 1, next wait = 120 minutes"));
    EXPECT_EQ(Stored(), "120 " + Microseconds(1800 + 3600));
}

TEST_F(Backoff, AfterARestartTheTimeInFailOpenCountsFromTheEpoch) {
    Store("120", Microseconds(0));
    ASSERT_EQ(CheckAt(60, "Activated"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "act_dur"), std::to_string(13344473600 + 60));
}

TEST_F(Backoff, AStoredWaitAboveTheMaximumIsHonoured) {
    Store("500", Microseconds(0));
    ASSERT_EQ(CheckAt(499 * 60, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth in backoff period, 1 minutes remaining"));
    machine().processorQueue = 51;
    ASSERT_EQ(CheckActivatedAt(500 * 60), kFailOpen);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"),
                    "SysHealth backoff increased, metrics over threshold = 1, next wait = 240 minutes"))
        << "growth applies the cap";
}

TEST_F(Backoff, TheLargestStoredWaitIsHonouredToo) {
    Store("4294967295", Microseconds(0));
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth in backoff period, 4294967295 minutes remaining"));
    EXPECT_EQ(FieldOf(TakeLongLine(), "next_chk"), "4294967295");
}

TEST_F(Backoff, ACheckInTheFutureCountsAsLongPast) {
    Store("120", Microseconds(60));
    ASSERT_EQ(CheckAt(0, "Activated"), kNormal) << "the unsigned difference is huge";
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "SysHealth recovery successful, metrics over threshold = 0"));
}

TEST_F(Backoff, AClearStoresZeros) {
    Store("120", "77");
    machine().processorQueue = 51;
    ASSERT_EQ(Check(), kFailOpen);
    EXPECT_EQ(Stored(), "0 0");
    EXPECT_TRUE(Has(TakeTracedMessages("SysHealth.eng"), "clearBackoffState() cleared backoff state"));
}

TEST_F(Backoff, AClearOfADisabledIterationStoresZerosToo) {
    Store("120", "77");
    RemoveConfig();
    ASSERT_EQ(Check(), kDisabled);
    EXPECT_EQ(Stored(), "0 0");
    WriteConfig(kRunQueue);
    Store("", "");
    EXPECT_EQ(Loaded(), "backoff_wait=0 last_check=0") << "the copies in memory are cleared as well";
}

TEST_F(Backoff, ASaveIsTraced) {
    ASSERT_EQ(CheckAt(3, "Activated"), kFailOpen);
    for (const TracedLine &line : TakeTracedLines()) {
        if (!line.message.starts_with("saveBackoffState()"))
            continue;
        EXPECT_EQ(line.component, "SysHealth.eng");
        EXPECT_EQ(line.message, "saveBackoffState() backoff_wait=30 last_check=" + Microseconds(3));
        return;
    }
    ADD_FAILURE() << "no trace of a save";
}

TEST_F(Backoff, AWaitInProgressStoresNothing) {
    ASSERT_EQ(CheckAt(0, "Activated"), kFailOpen);
    Forget();
    ASSERT_EQ(CheckAt(60, "Activated"), kFailOpen);
    const std::vector<std::string> traces = TakeTracedMessages();
    EXPECT_FALSE(HasBeginning(traces, "saveBackoffState()"));
    EXPECT_FALSE(HasBeginning(traces, "clearBackoffState()"));
    EXPECT_EQ(Stored(), "30 " + Microseconds(0));
}

TEST_F(Backoff, NormalFilteringStoresNothing) {
    Store("120", "77");
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Stored(), "120 77");
}

}  // namespace
