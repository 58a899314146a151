// Threads that take turns.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "Turns.h"
#include "UniqueHandle.h"

using namespace std::chrono_literals;
using Simulator::Interval;
using Simulator::Turns;

namespace {

/// Threads that write down what they do, one at a time.
class TakingTurns : public testing::Test {
protected:
    TakingTurns() {
        turns.Begin([this](Interval time) { now = std::max(now, time); });
    }
    ~TakingTurns() override {
        turns.End();
        for (const Body &body : m_bodies)
            (void)WaitForSingleObject(body.thread.get(), INFINITE);
    }

    void Make(std::function<void()> run) {
        Body &body = m_bodies.emplace_back(Body{this, std::move(run), nullptr});
        body.thread.reset(CreateThread(nullptr, 0, &Run, &body, CREATE_SUSPENDED, nullptr));
        turns.Add(body.thread.get());
        (void)ResumeThread(body.thread.get());
        turns.NoteResumed(body.thread.get());
    }
    HANDLE Last() const { return m_bodies.back().thread.get(); }
    bool Sleep(Interval time) { return turns.Wait(now + time, nullptr); }
    void Say(const std::string &text) { said += text + std::to_string(now / 1s) + " "; }

    Turns turns;
    Interval now{};
    std::string said;

private:
    struct Body {
        TakingTurns *test;
        std::function<void()> run;
        Simulator::UniqueHandle thread;
    };
    static DWORD WINAPI Run(void *address) {
        const auto &body = *static_cast<Body *>(address);
        body.test->turns.AwaitFirst();
        body.run();
        body.test->turns.Leave();
        return 0;
    }
    std::list<Body> m_bodies;
};

/// The instruction at which a thread is.
DWORD64 PlaceOf(HANDLE thread) {
    CONTEXT context{};
    context.ContextFlags = CONTEXT_CONTROL;
    (void)SuspendThread(thread);
    EXPECT_TRUE(GetThreadContext(thread, &context)) << GetLastError();
    (void)ResumeThread(thread);
    return context.Rip;
}

}  // namespace

TEST_F(TakingTurns, RunByTheEndsOfTheirWaitsAndTheYoungestFirst) {
    for (const char *name : {"a", "b"})
        Make([this, name] {
            for (int i = 0; i < 2; ++i) {
                Say(name);
                (void)Sleep(10s);
            }
        });
    Say("me");
    EXPECT_FALSE(Sleep(10s));
    Say("me");
    EXPECT_FALSE(Sleep(15s));
    Say("me");
    EXPECT_EQ(said, "me0 b0 a0 b10 a10 me10 me25 ");
}

TEST_F(TakingTurns, EndAWaitWithoutTimePassingWhenAnotherHasEndedIt) {
    bool isSet = false;
    Make([&] {
        (void)Sleep(3s);
        isSet = true;
        (void)Sleep(100s);
    });
    EXPECT_TRUE(turns.Wait(Interval(60s), [&] { return isSet; }));
    EXPECT_EQ(now, 3s);
    EXPECT_FALSE(turns.Wait(Interval(60s), [] { return false; }));
    EXPECT_EQ(now, 60s);
}

TEST_F(TakingTurns, AskAThreadThatAwaitsASignOnlyOnceThatIsSet) {
    std::atomic<bool> isSet{false};
    unsigned asked = 0;
    Make([&] {
        const auto isOver = [&] {
            ++asked;
            return isSet.load();
        };
        EXPECT_TRUE(turns.Wait(std::nullopt, isOver, &isSet));
        Say("woken");
    });
    (void)Sleep(1s);
    (void)Sleep(1s);
    EXPECT_EQ(asked, 0U);
    isSet = true;
    (void)Sleep(1s);
    EXPECT_EQ(asked, 1U);
    EXPECT_EQ(said, "woken2 ");
}

TEST_F(TakingTurns, SeeAThreadEndedThatHasLeft) {
    Make([this] { (void)Sleep(5s); });
    EXPECT_TRUE(turns.Wait(std::nullopt, [this] { return WaitForSingleObject(Last(), 0) == WAIT_OBJECT_0; }));
    EXPECT_EQ(now, 5s);
}

TEST_F(TakingTurns, DoNotWaitForAThreadThatIsSuspendedOrWasKilled) {
    Make([this] {
        (void)Sleep(1s);
        Say("never");
    });
    EXPECT_FALSE(turns.Wait(Interval(5'000'000), nullptr));
    (void)SuspendThread(Last());
    turns.NoteSuspended(Last());
    EXPECT_FALSE(Sleep(10s));
    Simulator::KillThread(Last());
    EXPECT_FALSE(Sleep(10s));
    Make([this] { Say("next"); });
    EXPECT_FALSE(Sleep(1s));
    turns.KillOthers();
    EXPECT_FALSE(Sleep(1s));
    EXPECT_EQ(said, "next20 ");
}

// So a thread may be killed at any time, and the stack of one that hangs is always the same.
TEST_F(TakingTurns, FindAllOthersAtTheSamePlaceEvenThoseThatJustBeganOrJustGaveTheTurnAway) {
    std::set<DWORD64> places;
    for (int i = 0; i < 30; ++i) {
        Make([this] { (void)Sleep(1h); });
        places.insert(PlaceOf(Last()));
        (void)Sleep(1s);
        places.insert(PlaceOf(Last()));
    }
    EXPECT_EQ(places.size(), 1U);
    turns.KillOthers();
}

TEST_F(TakingTurns, AreOverAtTheEnd) {
    EXPECT_TRUE(turns.TakesPart());
    Make([this] { EXPECT_FALSE(turns.Wait(std::nullopt, [] { return false; })); });
    EXPECT_FALSE(Sleep(1s));
    turns.End();
    EXPECT_FALSE(turns.TakesPart());
    EXPECT_EQ(WaitForSingleObject(Last(), INFINITE), WAIT_OBJECT_0) << "it was let go";
}
