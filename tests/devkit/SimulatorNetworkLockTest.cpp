#include <string>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

class SimulatedWriteLock : public SimulatedNetwork {
protected:
    struct Answer {
        HRESULT result;
        std::wstring holder;  ///< "null" for a null pointer.

        bool operator==(const Answer &) const = default;
    };
    static Answer Acquire(INetCfgLock *lock, const wchar_t *description, DWORD timeoutMs = 15'000) {
        LPWSTR text = nullptr;
        const HRESULT result = lock->AcquireWriteLock(timeoutMs, description, &text);
        Answer answer{result, text == nullptr ? L"null" : text};
        CoTaskMemFree(text);
        return answer;
    }
    static Answer Acquire(const ComPtr<INetCfg> &engine, const wchar_t *description, DWORD timeoutMs = 15'000) {
        return Acquire(LockOf(engine).Get(), description, timeoutMs);
    }
    const Answer taken{S_OK, L"null"};
};

}  // namespace

TEST_F(SimulatedWriteLock, IsAcquiredAndReleased) {
    const ComPtr<INetCfg> engine = Create();
    EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(Acquire(engine, L"one"), taken);
    EXPECT_EQ(network.Read().lock->description, L"one");
    EXPECT_TRUE(network.Read().lock->inThisProcess);
    EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), S_OK);
    EXPECT_FALSE(network.Read().lock.has_value());
    EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(Acquire(engine, L"two"), taken);
}

TEST_F(SimulatedWriteLock, OfAnotherProcessIsReportedAndRespected) {
    network.LockFromElsewhere(L"Control Panel");
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> engine = CreateInitialised();
    EXPECT_EQ(Acquire(engine, L"one"), (Answer{S_FALSE, L"Control Panel"}));
    EXPECT_EQ(DeInstall(engine, L"filter"), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), NETCFG_E_NO_WRITE_LOCK);
    EXPECT_EQ(LockOf(engine)->AcquireWriteLock(0, L"one", nullptr), S_FALSE);
    network.Use([](NetworkState &state) { state.lock.reset(); });
    EXPECT_EQ(Acquire(engine, L"one"), taken);
    EXPECT_EQ(DeInstall(engine, L"filter"), S_OK);
}

TEST_F(SimulatedWriteLock, ReturnsItsHoldersDescriptionForTheCallerToFree) {
    network.LockFromElsewhere(L"Control Panel");
    LPWSTR text = nullptr;
    EXPECT_EQ(LockOf(Create())->AcquireWriteLock(0, L"one", &text), S_FALSE);
    EXPECT_STREQ(text, L"Control Panel");
    EXPECT_EQ(Count(Kind::kComMemory), 1U);
    EXPECT_STREQ(simulation->GetBalance().Take().items.back().function, "INetCfgLock::AcquireWriteLock");
    CoTaskMemFree(text);
    EXPECT_EQ(Count(Kind::kComMemory), 0U);
}

TEST_F(SimulatedWriteLock, IsSharedWithAnotherEngineOfTheProcess) {
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> first = CreateLocked();
    const ComPtr<INetCfg> second = CreateInitialised();
    EXPECT_EQ(second->Apply(), NETCFG_E_NO_WRITE_LOCK) << "it has not asked";
    EXPECT_EQ(Acquire(second, L"two"), (Answer{S_FALSE, L"test"}));
    EXPECT_EQ(DeInstall(second, L"filter"), S_OK);
    EXPECT_EQ(LockOf(second)->ReleaseWriteLock(), S_OK);
    EXPECT_FALSE(network.Read().lock.has_value());
    EXPECT_EQ(first->Apply(), NETCFG_E_NO_WRITE_LOCK);
}

TEST_F(SimulatedWriteLock, StaysHeldWhenItsEngineIsDestroyed) {
    (void)CreateLocked();
    EXPECT_EQ(References(), 0U);
    EXPECT_EQ(Acquire(Create(), L"two"), (Answer{S_FALSE, L"test"}));
}

TEST_F(SimulatedWriteLock, StaysHeldWhenItsThreadIsKilled) {
    const auto plan = faults().HangNth("INetCfg::Apply", 1);
    const TestThread thread([] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        (void)CreateLocked()->Apply();
    });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    ASSERT_TRUE(TerminateThread(thread.Handle(), 0));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    const ComPtr<INetCfg> engine = Create();
    EXPECT_EQ(Acquire(engine, L"test"), (Answer{S_FALSE, L"test"}));
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(engine->Apply(), S_OK);
    EXPECT_EQ(LockOf(engine)->ReleaseWriteLock(), S_OK);
    EXPECT_EQ(Acquire(Create(), L"two"), taken);
}

TEST_F(SimulatedWriteLock, IsWaitedForByTheClockIfRequested) {
    Clock &clock = simulation->GetClock();
    clock.Step(Clock::AutoAdvance::Sleeps);
    network.LockFromElsewhere(L"Control Panel");
    const ComPtr<INetCfg> engine = Create();
    const auto waited = [&](DWORD timeoutMs) {
        const std::uint64_t before = clock.TickMs();
        EXPECT_EQ(Acquire(engine, L"one", timeoutMs).result, S_FALSE);
        return clock.TickMs() - before;
    };
    EXPECT_EQ(waited(15'000), 0U);
    network.Use([](NetworkState &state) { state.lockWaitMs = INFINITE; });
    EXPECT_EQ(waited(15'000), 15'000U);
    network.Use([](NetworkState &state) { state.lockWaitMs = 200; });
    EXPECT_EQ(waited(15'000), 200U);
}

TEST_F(SimulatedWriteLock, IsAcquiredWhenItIsReleasedDuringTheWait) {
    Clock &clock = simulation->GetClock();
    clock.Step();
    network.LockFromElsewhere(L"Control Panel");
    network.Use([](NetworkState &state) { state.lockWaitMs = INFINITE; });
    const ComPtr<INetCfg> engine = Create();
    const ComPtr<INetCfgLock> lock = LockOf(engine);
    Answer answer{};
    const TestThread thread([&] { answer = Acquire(lock.Get(), L"one"); });
    ASSERT_TRUE(clock.AwaitWaiting(1, kPatienceMs));
    network.Use([](NetworkState &state) { state.lock.reset(); });
    clock.Advance(std::chrono::seconds(15));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(answer, taken);
}

TEST_F(SimulatedWriteLock, ReportsWhetherItIsHeld) {
    const ComPtr<INetCfg> engine = Create();
    auto *text = const_cast<wchar_t *>(L"untouched");
    EXPECT_EQ(LockOf(engine)->IsWriteLocked(&text), S_FALSE);
    EXPECT_EQ(text, nullptr);
    EXPECT_EQ(Acquire(engine, L"one"), taken);
    EXPECT_EQ(LockOf(Create())->IsWriteLocked(&text), S_OK);
    EXPECT_STREQ(text, L"one");
    CoTaskMemFree(text);
}
