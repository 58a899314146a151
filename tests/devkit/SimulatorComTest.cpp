#include "ComLibrary.h"

#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <netcfgx.h>
#include <objbase.h>
#include <windows.h>

#include "ComObject.h"
#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

class SimulatedCom : public ::testing::Test {
protected:
    SimulatedCom() { (void)simulation.Attach(ThisProgram()); }

    /// Runs in a new thread, whose model is not set.
    static void InThread(const std::function<void()> &body) { const TestThread thread(body); }
    static HRESULT Create(IUnknown **object, REFIID iid = IID_INetCfg, DWORD context = CLSCTX_INPROC_SERVER,
                          IUnknown *outer = nullptr) {
        return CoCreateInstance(CLSID_CNetCfg, outer, context, iid, reinterpret_cast<void **>(object));
    }
    std::size_t Initialisations() { return simulation.GetBalance().Take().Count(Kind::kComInitialisation); }

    Simulation simulation{{.registry = false, .folders = false}};
};

}  // namespace

TEST_F(SimulatedCom, InitialisesAThreadForOneModelAndCountsIt) {
    InThread([this] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED | COINIT_DISABLE_OLE1DDE), S_FALSE);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), RPC_E_CHANGED_MODE);
        const BalanceSnapshot balance = simulation.GetBalance().Take();
        EXPECT_EQ(balance.Count(Kind::kComInitialisation), 2U);
        EXPECT_EQ(balance.items.back().value, GetCurrentThreadId());
        CoUninitialize();
        EXPECT_EQ(Initialisations(), 1U);
        CoUninitialize();
    });
    EXPECT_EQ(Initialisations(), 0U);
}

TEST_F(SimulatedCom, RefusesTheMultithreadedModelIfThreadsHaveApartments) {
    simulation.GetCom().threadsHaveApartments = true;
    InThread([this] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
        EXPECT_EQ(Initialisations(), 0U);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_FALSE);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), RPC_E_CHANGED_MODE);
        EXPECT_EQ(Initialisations(), 1U);
        CoUninitialize();
    });
    EXPECT_EQ(Initialisations(), 0U);
}

TEST_F(SimulatedCom, CreatesNothingInAThreadWithoutAModel) {
    EXPECT_TRUE(SUCCEEDED(CoInitializeEx(nullptr, COINIT_MULTITHREADED)));
    InThread([] {
        auto *object = reinterpret_cast<IUnknown *>(0x4711);
        EXPECT_EQ(Create(&object), CO_E_NOTINITIALIZED) << "what another thread has made does not count";
        EXPECT_EQ(object, nullptr);
    });
    CoUninitialize();
}

TEST_F(SimulatedCom, CreatesInAThreadThatUsesAnExistingApartment) {
    simulation.GetCom().threadsHaveApartments = true;
    InThread([] {
        IUnknown *object = nullptr;
        ASSERT_EQ(Create(&object), S_OK);
        EXPECT_EQ(object->Release(), 0U);
    });
}

TEST_F(SimulatedCom, CreatesSimulatedClassesOnlyInProcessAndWithoutAggregation) {
    InThread([] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
        IUnknown *object = nullptr;
        EXPECT_EQ(Create(&object, IID_INetCfg, CLSCTX_LOCAL_SERVER), REGDB_E_CLASSNOTREG);
        EXPECT_EQ(Create(&object, IID_INetCfgComponent), E_NOINTERFACE);
        EXPECT_EQ(Create(nullptr), E_POINTER);
        ASSERT_EQ(Create(&object), S_OK);
        IUnknown *inner = nullptr;
        EXPECT_EQ(Create(&inner, IID_IUnknown, CLSCTX_INPROC_SERVER, object), CLASS_E_NOAGGREGATION);
        EXPECT_EQ(object->Release(), 0U);
        CoUninitialize();
    });
}

TEST_F(SimulatedCom, CreatesOtherClassesForReal) {
    InThread([this] {
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        IUnknown *table = nullptr;
        EXPECT_EQ(CoCreateInstance(CLSID_StdGlobalInterfaceTable, nullptr, CLSCTX_INPROC_SERVER, IID_IUnknown,
                                   reinterpret_cast<void **>(&table)),
                  S_OK);
        ASSERT_NE(table, nullptr);
        EXPECT_EQ(simulation.GetBalance().Take().Count(Kind::kComReference), 0U);
        table->Release();
        CoUninitialize();
    });
}

TEST_F(SimulatedCom, CountsMemoryThatIsToBeFreed) {
    const auto memory = [this] { return simulation.GetBalance().Take().Count(Kind::kComMemory); };
    void *const block = CoTaskMemAlloc(17);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(memory(), 1U);
    CoTaskMemFree(nullptr);
    EXPECT_EQ(memory(), 1U);
    CoTaskMemFree(block);
    EXPECT_EQ(memory(), 0U);
}

TEST_F(SimulatedCom, FailsAsPlannedAndIsInTheJournal) {
    InThread([this] {
        (void)simulation.GetFaults().FailNth("CoInitializeEx", 1, static_cast<DWORD>(E_OUTOFMEMORY));
        (void)simulation.GetFaults().FailNth("CoCreateInstance", 1, static_cast<DWORD>(E_ACCESSDENIED));
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), E_OUTOFMEMORY);
        EXPECT_EQ(Initialisations(), 0U);
        EXPECT_EQ(CoInitializeEx(nullptr, COINIT_MULTITHREADED), S_OK);
        IUnknown *object = nullptr;
        EXPECT_EQ(Create(&object), E_ACCESSDENIED);
        EXPECT_EQ(object, nullptr);
        CoUninitialize();
    });
    const std::vector<JournalEntry> calls = simulation.GetJournal().Take();
    ASSERT_EQ(calls.size(), 4U);
    EXPECT_EQ(calls[0].function, "CoInitializeEx");
    EXPECT_EQ(calls[0].arguments, "null, 0");
    EXPECT_EQ(calls[2].function, "CoCreateInstance");
    EXPECT_EQ(calls[2].arguments.find("{5B035261-40F9-11D1-AAEC-00805FC1270E}, null, 1, "
                                      "{C0E8AE93-306E-11D1-AACF-00805FC1270E}, 0x"),
              0U)
        << calls[2].arguments;
    EXPECT_EQ(calls[3].function, "CoUninitialize");
}
