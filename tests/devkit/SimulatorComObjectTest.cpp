// What all simulated COM objects have in common, tested with those of the network configuration.
#include "ComObject.h"

#include <memory>
#include <string>
#include <vector>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

using SimulatedObjects = SimulatedNetwork;
using Calls = std::vector<std::string>;

DWORD Code(HRESULT result) {
    return static_cast<DWORD>(result);
}

}  // namespace

TEST_F(SimulatedObjects, CountEachReferenceUnderTheCallThatReturnedIt) {
    network.Put({.id = L"filter"});
    {
        ComPtr<INetCfg> engine = CreateInitialised();
        const ComPtr<INetCfgLock> lock = LockOf(engine);
        const ComPtr<INetCfgComponent> component = Find(engine, L"filter");
        const ComPtr<INetCfgClassSetup> setup = SetupOf(engine);
        const ComPtr<INetCfg> again(engine.Get());
        EXPECT_EQ(Givers(), (Calls{"CoCreateInstance", "INetCfg::QueryInterface", "INetCfg::FindComponent",
                                   "INetCfg::QueryNetCfgClass", "INetCfg::AddRef"}));
    }
    EXPECT_EQ(Givers(), Calls{});
}

TEST_F(SimulatedObjects, ShowWhichReferenceIsLeft) {
    INetCfgLock *left = LockOf(Create()).Detach();
    const std::vector<BalanceItem> items = simulation->GetBalance().Take().items;
    EXPECT_EQ(Givers(), Calls{"INetCfg::QueryInterface"});
    EXPECT_EQ(items.back().value, reinterpret_cast<std::uintptr_t>(left));
    EXPECT_EQ(left->Release(), 0U);
    EXPECT_EQ(References(), 0U);
}

TEST_F(SimulatedObjects, CountReferencesAsComDoes) {
    ComPtr<INetCfg> engine = Create();
    EXPECT_EQ(engine->AddRef(), 2U);
    EXPECT_EQ(engine->AddRef(), 3U);
    EXPECT_EQ(engine->Release(), 2U);
    EXPECT_EQ(engine->Release(), 1U);
    EXPECT_EQ(engine.Reset(), 0U);
}

TEST_F(SimulatedObjects, NoteTheirReleasesIfTheJournalWantsThem) {
    CreateInitialised().Reset();
    EXPECT_EQ(journal().Count("INetCfg::Release"), 0U);
    const NotedReleases noted;
    (void)journal().Take();
    ComPtr<INetCfg> engine = CreateInitialised();
    ComPtr<INetCfgLock> lock = LockOf(engine);
    ComPtr<INetCfg> again(engine);
    again.Reset();
    lock.Reset();
    EXPECT_EQ(engine->Uninitialize(), S_OK);
    engine.Reset();
    Calls calls;
    for (const JournalEntry &entry : journal().Take()) {
        if (entry.function.ends_with("::Release"))
            calls.push_back(entry.function + " " + entry.arguments);
        else if (entry.function == "INetCfg::Uninitialize")
            calls.push_back(entry.function);
    }
    EXPECT_EQ(calls,
              (Calls{"INetCfg::Release 1", "INetCfgLock::Release 0", "INetCfg::Uninitialize", "INetCfg::Release 0"}));
}

TEST_F(SimulatedObjects, AreTheSameObjectBehindAllTheirInterfaces) {
    ComPtr<INetCfg> engine = Create();
    const ComPtr<INetCfgLock> lock = LockOf(engine);
    ComPtr<IUnknown> fromEngine;
    ComPtr<IUnknown> fromLock;
    EXPECT_EQ(engine.As(&fromEngine), S_OK);
    fromEngine.Reset();
    engine.Reset();
    ASSERT_EQ(lock.As(&fromLock), S_OK) << "held by its lock alone";
    EXPECT_EQ(fromLock.As(&engine), S_OK);
    EXPECT_EQ(fromLock.Get(), engine.Get());
    EXPECT_EQ(engine.As(&fromEngine), S_OK);
    EXPECT_EQ(fromLock, fromEngine);
}

TEST_F(SimulatedObjects, UseNoMemoryOfTheProgram) {
    network.Put({.id = L"filter"});
    const BalanceSnapshot before = simulation->GetBalance().Take();
    {
        const ComPtr<INetCfg> engine = CreateInitialised();
        const ComPtr<INetCfgComponent> component = Find(engine, L"filter");
        EXPECT_EQ(simulation->GetBalance().Take().blocks, before.blocks);
    }
    EXPECT_EQ(simulation->GetBalance().Difference(before, simulation->GetBalance().Take()), "");
}

TEST_F(SimulatedObjects, FailAsPlannedEvenWithASuccessCode) {
    network.Put({.id = L"filter"});
    const ComPtr<INetCfg> engine = CreateInitialised();
    for (const HRESULT code : {E_ACCESSDENIED, S_FALSE, NETCFG_S_REBOOT, S_OK}) {
        SCOPED_TRACE(code);
        (void)faults().FailNth("INetCfg::FindComponent", 1, Code(code));
        auto *component = reinterpret_cast<INetCfgComponent *>(0x4711);
        EXPECT_EQ(engine->FindComponent(L"filter", &component), code);
        EXPECT_EQ(component, nullptr);
    }
    EXPECT_EQ(References(), 1U);
    EXPECT_NE(Find(engine, L"filter"), nullptr);
}

TEST_F(SimulatedObjects, FailQueriesUnderTheNameOfTheInterface) {
    const ComPtr<INetCfg> engine = CreateInitialised();
    ComPtr<INetCfgClass> netClass;
    ASSERT_EQ(engine->QueryNetCfgClass(&GUID_DEVCLASS_NETSERVICE, IID_PPV_ARGS(&netClass)), S_OK);
    (void)faults().FailEvery("INetCfgClass::QueryInterface", Code(E_NOINTERFACE));
    (void)faults().FailNth("INetCfg::QueryInterface", 2, Code(E_OUTOFMEMORY));
    ComPtr<INetCfgClassSetup> setup;
    EXPECT_EQ(netClass.As(&setup), E_NOINTERFACE);
    EXPECT_EQ(setup, nullptr);
    EXPECT_NE(LockOf(engine), nullptr);
    ComPtr<INetCfgLock> lock;
    EXPECT_EQ(engine.As(&lock), E_OUTOFMEMORY);
    EXPECT_NE(LockOf(engine), nullptr);
}

TEST_F(SimulatedObjects, AreIncludedInAllThatCanFail) {
    const ComPtr<INetCfg> engine = Create();
    const auto plan = faults().FailNthOfAny(2, Code(E_ABORT));
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(engine->Uninitialize(), E_ABORT);
    EXPECT_EQ(plan->HitFunction(), "INetCfg::Uninitialize");
}

TEST_F(SimulatedObjects, KeepTheLastError) {
    const ComPtr<INetCfg> engine = Create();
    SetLastError(4711);
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(GetLastError(), 4711U);
}

TEST_F(SimulatedObjects, StayUsableWhenAThreadIsKilledWithinOne) {
    network.Put({.id = L"filter"});
    const auto plan = faults().HangNth("INetCfg::FindComponent", 1);
    INetCfg *shared = nullptr;
    TestThread thread([&shared] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        ComPtr<INetCfg> engine = CreateLocked();
        shared = engine.Get();
        (void)Find(engine, L"filter");
    });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    ASSERT_TRUE(thread.Runs());
    ASSERT_TRUE(TerminateThread(thread.Handle(), 0));
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(Givers(), Calls{"CoCreateInstance"}) << "what the thread held";
    EXPECT_EQ(Count(Kind::kComInitialisation), 2U) << "this thread's and the killed one's";

    ComPtr<INetCfgComponent> component;
    EXPECT_EQ(shared->FindComponent(L"filter", &component), S_OK);
    EXPECT_EQ(CreateInitialised()->FindComponent(L"filter", &component), S_OK);
    component.Reset();
    EXPECT_EQ(shared->Release(), 0U);
    EXPECT_EQ(References(), 0U);
    EXPECT_TRUE(network.Has(L"filter"));
    EXPECT_EQ(journal().Count("INetCfg::FindComponent"), 3U);
}

TEST_F(SimulatedObjects, AnswerLateByTheSimulatedClock) {
    simulation->GetClock().Step(Clock::AutoAdvance::Sleeps);
    const ComPtr<INetCfg> engine = Create();
    (void)faults().DelayNth("INetCfg::Initialize", 1, 60'000);
    const std::uint64_t before = simulation->GetClock().TickMs();
    EXPECT_EQ(engine->Initialize(nullptr), S_OK);
    EXPECT_EQ(simulation->GetClock().TickMs() - before, 60'000U);
}

TEST_F(SimulatedObjects, AreDisconnectedWhenTheSimulationEnds) {
    network.Put({.id = L"filter"});
    INetCfg *engine = CreateInitialised().Detach();
    const auto plan = faults().HangEvery("INetCfg::Uninitialize");
    HRESULT hung = S_OK;
    const TestThread thread([&] { hung = engine->Uninitialize(); });
    ASSERT_TRUE(plan->WaitUntilHit(kPatienceMs));
    simulation.reset();
    ASSERT_TRUE(thread.Join(kPatienceMs));
    EXPECT_EQ(hung, RPC_E_DISCONNECTED);
    INetCfgComponent *component = nullptr;
    EXPECT_EQ(engine->FindComponent(L"filter", &component), RPC_E_DISCONNECTED);
    EXPECT_EQ(component, nullptr);

    const Simulation another({.registry = false, .folders = false});
    EXPECT_EQ(engine->AddRef(), 2U);
    EXPECT_EQ(References(), 0U) << "none of its objects";
    EXPECT_EQ(engine->Release(), 1U);
    EXPECT_EQ(engine->Release(), 0U);
}
