// Memory that runs out, and memory that is given back.
#include "DiagnosticsFixture.h"

namespace {

using Names = std::vector<std::string>;

class DiagnosticMemory : public DiagnosticsFixture {
protected:
    DiagnosticMemory() { VtaCore::Control::EnableTrace("diagnostics", true); }

    /// A run in which the n-th block fails that the module itself asks the C runtime for, if there are that many.
    /// What operator new makes for strings and streams does not count: neither can do without it.
    Package RunWithout(unsigned nth, bool &hit) {
        const auto fault = balance().FailAllocation(nth, GetModuleHandleW(L"fc.dll"), 0, false);
        Package package = Run();
        balance().CancelAllocationFaults();
        hit = fault->Hit();
        return package;
    }
    Simulator::BalanceSnapshot Settled() {
        (void)VtaCore::Control::TakeTraces();
        (void)VtaCore::Control::TakeEvents();
        std::vector<std::string>().swap(calls);
        std::vector<std::string>().swap(driver().calls);
        lua_gc(lua, LUA_GCCOLLECT, 0);
        return balance().Take();
    }
};

struct Loss {
    Names left;  ///< Of the files that are left.
    Names traces;
};

/// What is left without each of the blocks, in their order.
const Loss kLosses[] = {
    {{kVariables, kConnTrack, kBlacklist, kProfile}, {"AddDriverStatistics diagnostics failed"}},
    {{kStats, kVariables, kBlacklist, kProfile}, {"malloc 352 bytes failed."}},
    {{kStats, kVariables, kConnTrack, kProfile}, {"AddDriverBlacklist diagnostics failed"}},
    {{kStats, kVariables, kConnTrack, kBlacklist, kProfile}, {"malloc() failed"}},
};

TEST_F(DiagnosticMemory, EachBlockThatIsMissingCostsItsFileAloneAndNoOther) {
    bool hit = false;
    for (unsigned nth = 1; nth <= std::size(kLosses); ++nth) {
        SCOPED_TRACE("block " + std::to_string(nth));
        const Loss &loss = kLosses[nth - 1];
        EXPECT_EQ(RunWithout(nth, hit).Names(), loss.left);
        EXPECT_TRUE(hit);
        Names failures;
        for (const std::string &message : TakeTracedMessages("diagnostics"))
            if (message.find("failed") != std::string::npos)
                failures.push_back(message);
        EXPECT_EQ(failures, loss.traces);
        EXPECT_EQ(TakeEvents(), Names());
    }
    (void)RunWithout(std::size(kLosses) + 1, hit);
    EXPECT_FALSE(hit) << "the module asks for more blocks than this test knows of";
}

TEST_F(DiagnosticMemory, WithoutABlockForItTheProfileIsEmptyAndVariable62IsLeftAlone) {
    driver().variables[62] = 1;
    bool hit = false;
    EXPECT_EQ(RunWithout(std::size(kLosses), hit).Content(kProfile), "");
    EXPECT_TRUE(hit);
    EXPECT_EQ(driver().variables[62], 1u);
    EXPECT_EQ(calls.back(), "vti_get_profile_stats(0)");
}

TEST_F(DiagnosticMemory, ARunGivesBackAllThatItMade) {
    (void)Run();
    const Simulator::BalanceSnapshot before = Settled();
    (void)Run();
    EXPECT_EQ(balance().Difference(before, Settled()), "");
}

TEST_F(DiagnosticMemory, ARunWithoutABlockGivesBackAllThatItMade) {
    for (unsigned nth = 1; nth <= std::size(kLosses); ++nth) {
        SCOPED_TRACE("block " + std::to_string(nth));
        bool hit = false;
        (void)RunWithout(nth, hit);
        const Simulator::BalanceSnapshot before = Settled();
        (void)RunWithout(nth, hit);
        EXPECT_TRUE(hit);
        EXPECT_EQ(balance().Difference(before, Settled()), "");
    }
}

TEST_F(DiagnosticMemory, AFailureOfTheDriverGivesBackAllThatWasMade) {
    const std::pair<const char *, int> places[] = {
        {"vti_driver_available", 0},  {"vti_get_stats", 0},        {"vti_get_varv", 100},    {"vti_get_conntrack", 0},
        {"vti_get_conntrack", 1},     {"vti_get_conntrack", 2},    {"vti_get_blacklist", 0}, {"vti_get_blacklist", 1},
        {"vti_get_profile_stats", 0}, {"vti_get_profile_stats", 1}};
    for (const auto &[operation, after] : places) {
        SCOPED_TRACE(std::string(operation) + " after " + std::to_string(after));
        driver().faults.clear();
        (void)Run();
        const Simulator::BalanceSnapshot before = Settled();
        driver().faults[operation] = {-1, "", 1, after};
        (void)Run();
        driver().faults.clear();
        EXPECT_EQ(balance().Difference(before, Settled()), "");
    }
}

TEST_F(DiagnosticMemory, ARunStaysWithinItsBlocks) {
    balance().Guard({});
    const Package package = Run();
    balance().StopGuarding();
    EXPECT_EQ(package.Files().size(), 5u);
}

}  // namespace
