// The ARP cache, which the check of the network clears first.
#include <string>
#include <vector>

#include "BindingsFixture.h"
#include "WindowsFunctions.h"

namespace {

using ReadArpTable = Simulator::Function<"GetIpNetTable", "IPHLPAPI.DLL", ULONG(MIB_IPNETTABLE *, ULONG *, BOOL),
                                         Simulator::ReturnsStatus>;

/// An index that no adapter has, to tell these entries from those that the check itself adds.
constexpr DWORD kIndex = 1000;

class ArpCache : public BindingsFixture {
protected:
    /// @param type  MIB_IPNET_TYPE_DYNAMIC or another.
    void Put(const std::string &address, DWORD type) {
        network().Use([&](Simulator::NetworkState &state) {
            state.arp.push_back({.index = kIndex, .address = address, .mac = {2, 0, 0, 0, 0, 5}, .type = type});
        });
    }
    void PutMany(int entries) {
        for (int i = 0; i < entries; ++i)
            Put("10.5.0." + std::to_string(i + 1), MIB_IPNET_TYPE_DYNAMIC);
    }
    /// The addresses left of those that the test added, without those that the check itself resolved.
    Texts Left() {
        Texts left;
        for (const Simulator::ArpEntry &entry : network().Read().arp) {
            if (entry.index == kIndex)
                left.push_back(entry.address);
        }
        return left;
    }
    /// Makes this thread's next allocation by the module in the C runtime fail.
    void FailNextAllocation() {
        m_fault = balance().FailAllocation(1, GetModuleHandleW(L"fc.dll"), GetCurrentThreadId(), false);
    }

    Simulator::AllocationFaultHandle m_fault;
};

TEST_F(ArpCache, LosesItsInvalidAndDynamicEntries) {
    Put("10.5.0.1", 1);  // of another kind
    Put("10.5.0.2", MIB_IPNET_TYPE_INVALID);
    Put("10.5.0.3", MIB_IPNET_TYPE_DYNAMIC);
    Put("10.5.0.4", MIB_IPNET_TYPE_STATIC);
    Put("10.5.0.5", 5);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(Left(), (Texts{"10.5.0.1", "10.5.0.4", "10.5.0.5"}));
    EXPECT_EQ(CountCalls("DeleteIpNetEntry"), 2U);
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
    EXPECT_EQ(Failures(installation), Texts{});
}

TEST_F(ArpCache, IsClearedOnceBeforeAnythingElse) {
    Put("10.5.0.3", MIB_IPNET_TYPE_DYNAMIC);
    (void)InstallInBalance();
    EXPECT_EQ(Calls({"GetIpNetTable", "DeleteIpNetEntry", "SendARP"}),
              (Texts{"GetIpNetTable(*, *, 0)", "DeleteIpNetEntry(*)", "SendARP(16777226, 0, *, *)",
                     "SendARP(16842762, 0, *, *)"}));
}

TEST_F(ArpCache, LogsNothingWhenItIsEmpty) {
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(CountCalls("GetIpNetTable"), 1U);
    EXPECT_EQ(CountCalls("DeleteIpNetEntry"), 0U);
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{});
    EXPECT_EQ(Failures(installation), Texts{});
}

TEST_F(ArpCache, IsReadAgainWhenTheBufferIsTooSmall) {
    PutMany(100);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(CountCalls("GetIpNetTable"), 2U);
    EXPECT_EQ(Left(), Texts{});
    EXPECT_EQ(Failures(installation), Texts{});
}

TEST_F(ArpCache, IsReadIntoABufferOf412BytesAtFirst) {
    ULONG room = 0;
    simulation().Functions().Put<ReadArpTable>([&](const auto &next, MIB_IPNETTABLE *table, ULONG *size, BOOL order) {
        room = *size;
        return next(table, size, order);
    });
    (void)InstallInBalance();
    EXPECT_EQ(room, 412U);
}

TEST_F(ArpCache, IsKeptWhenItGrowsAgain) {
    PutMany(2);
    const auto plan = simulation().GetFaults().FailEvery("GetIpNetTable", ERROR_INSUFFICIENT_BUFFER);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(plan->Hits(), 2U);
    EXPECT_EQ(Failures(installation), Texts{"GetIpNetTable (0x7a)"});
    EXPECT_EQ(Left().size(), 2U);
    EXPECT_EQ(With(installation.traces, "Adapters all seem").size(), 1U) << "the check continues";
}

TEST_F(ArpCache, IsKeptWhenItCannotBeRead) {
    PutMany(2);
    Fail("GetIpNetTable", 1, ERROR_NOT_SUPPORTED);
    const InstallOutcome installation = InstallInBalance();
    EXPECT_EQ(CountCalls("GetIpNetTable"), 1U);
    EXPECT_EQ(Failures(installation), Texts{"GetIpNetTable (0x32)"});
    EXPECT_EQ(Left().size(), 2U);
    EXPECT_EQ(With(installation.traces, "Adapters all seem").size(), 1U) << "the check continues";
}

TEST_F(ArpCache, MayBecomeEmptyWhileItIsRead) {
    PutMany(100);
    Fail("GetIpNetTable", 2, ERROR_NO_DATA);
    EXPECT_EQ(Failures(InstallInBalance()), Texts{});
    EXPECT_EQ(CountCalls("GetIpNetTable"), 2U);
}

TEST_F(ArpCache, IsKeptWithoutMemory) {
    PutMany(2);
    bool planned = false;
    simulation().Functions().Put<Simulator::System::Sleep>([&](const auto &next, DWORD milliseconds) {
        next(milliseconds);
        if (milliseconds == 2'000 && !planned) {  // the call before the allocation
            planned = true;
            FailNextAllocation();
        }
    });
    const InstallOutcome installation = InstallInBalance();
    ASSERT_TRUE(planned);
    EXPECT_TRUE(m_fault->Hit());
    EXPECT_EQ(installation.Lines(wxLOG_Error), Texts{"CDriverInstallerWatchdog::ClearArpCache() - out of memory."});
    EXPECT_EQ(Failures(installation), Texts{});
    EXPECT_EQ(CountCalls("GetIpNetTable"), 0U);
    EXPECT_EQ(Left().size(), 2U);
    EXPECT_EQ(With(installation.traces, "Adapters all seem").size(), 1U) << "the check continues";
}

TEST_F(ArpCache, IsKeptWithoutMemoryForAllEntries) {
    PutMany(100);
    simulation().Functions().Put<ReadArpTable>([&](const auto &next, auto... arguments) {
        const ULONG error = next(arguments...);
        FailNextAllocation();
        return error;
    });
    const InstallOutcome installation = InstallInBalance();
    EXPECT_TRUE(m_fault->Hit());
    EXPECT_EQ(Failures(installation), Texts{"GetIpNetTable (0x7a)"});
    EXPECT_EQ(CountCalls("GetIpNetTable"), 1U);
    EXPECT_EQ(Left().size(), 100U);
}

TEST_F(ArpCache, LogsAnEntryThatCannotBeDeletedUnlessTheResultIsOne) {
    PutMany(3);
    Fail("DeleteIpNetEntry", 1, 1);
    Fail("DeleteIpNetEntry", 2, ERROR_FILE_NOT_FOUND);
    const InstallOutcome installation = InstallInBalance();
    const Texts errors = installation.Lines(wxLOG_Error);
    ASSERT_EQ(errors.size(), 1U);
    EXPECT_TRUE(errors[0].starts_with("DeleteIpNetEntry(10.5.0.2) failed: (error 2: ")) << errors[0];
    EXPECT_EQ(Left(), (Texts{"10.5.0.1", "10.5.0.2"})) << "the others are deleted";
    EXPECT_EQ(Failures(installation), Texts{}) << "it is not reported to the agent";
}

}  // namespace
