// Running out of memory, and freeing it.
#include "DiagnosticsFixture.h"

#include <map>
#include <string_view>

#include <windows.h>
#include <psapi.h>

#include "ImportTable.h"

namespace {

using Names = std::vector<std::string>;

class DiagnosticMemory : public DiagnosticsFixture {
protected:
    DiagnosticMemory() { VtaCore::Control::EnableTrace("diagnostics", true); }

    /// A run in which the n-th block that the module itself requests from the C runtime fails, if there are that many.
    /// Blocks of operator new for strings and streams do not count: those have no fallback.
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
    Names left;  ///< The sizes of the remaining files.
    Names traces;
};

/// The outcome without each of the blocks, in order.
const Loss kLosses[] = {
    {{kVariables, kConnTrack, kBlacklist, kProfile}, {"AddDriverStatistics diagnostics failed"}},
    {{kStats, kVariables, kBlacklist, kProfile}, {"malloc 352 bytes failed."}},
    {{kStats, kVariables, kConnTrack, kProfile}, {"AddDriverBlacklist diagnostics failed"}},
    {{kStats, kVariables, kConnTrack, kBlacklist, kProfile}, {"malloc() failed"}},
};

TEST_F(DiagnosticMemory, EachFailedAllocationAffectsOnlyItsOwnFile) {
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
    EXPECT_FALSE(hit) << "the module requests more blocks than this test expects";
}

TEST_F(DiagnosticMemory, WithoutMemoryTheProfileIsEmptyAndVariable62IsUnchanged) {
    driver().variables[62] = 1;
    bool hit = false;
    EXPECT_EQ(RunWithout(std::size(kLosses), hit).Content(kProfile), "");
    EXPECT_TRUE(hit);
    EXPECT_EQ(driver().variables[62], 1u);
    EXPECT_EQ(calls.back(), "vti_get_profile_stats(0)");
}

/// Where a package goes: records the module's own blocks of the C runtime that exist whenever something is written.
class BlocksAtWrites : public wxOutputStream {
public:
    explicit BlocksAtWrites(Simulator::Balance &balance) : m_balance(balance), m_before(balance.Take()) {}

    [[nodiscard]] const std::vector<std::size_t> &Sizes() const { return m_sizes; }

protected:
    size_t OnSysWrite(const void *, size_t size) override {
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(m_before, m_balance.Take()))
            if (IsOfModule(item.caller) && item.function != std::string_view(Simulator::Balance::kOperatorNew))
                m_sizes.push_back(item.size);
        return size;
    }

private:
    static bool IsOfModule(const void *caller) {
        HMODULE module = nullptr;
        return GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                  static_cast<const wchar_t *>(caller), &module) != 0 &&
               module == GetModuleHandleW(L"fc.dll");
    }

    Simulator::Balance &m_balance;
    Simulator::BalanceSnapshot m_before;
    std::vector<std::size_t> m_sizes;
};

TEST_F(DiagnosticMemory, EachRecordIsFreedBeforeItsFileIsAdded) {
    BlocksAtWrites out(balance());
    VtaCore::Control::ZipPackage zip(out);
    RunOn(zip);
    EXPECT_TRUE(zip.Close());
    EXPECT_EQ(out.Sizes(), std::vector<std::size_t>());
}

// --- blocks of wxWidgets ---

/// Fails a block that wxWidgets requests from the C runtime.
class FailingBlock {
public:
    /// The first realloc to that size.
    static FailingBlock GrownTo(std::size_t size) {
        return FailingBlock("realloc", reinterpret_cast<void *>(&Realloc), size);
    }
    /// The first malloc of that size.
    static FailingBlock OfSize(std::size_t size) {
        return FailingBlock("malloc", reinterpret_cast<void *>(&Malloc), size);
    }
    FailingBlock(const FailingBlock &) = delete;
    FailingBlock &operator=(const FailingBlock &) = delete;

    [[nodiscard]] bool Hit() const { return m_hit; }

private:
    FailingBlock(const char *function, void *replacement, std::size_t size)
        : m_redirection(GetModuleHandleW(L"" FC_WX_DLL), function, replacement) {
        EXPECT_TRUE(m_redirection.Found());
        m_hit = false;
        m_size = size;
        m_original = m_redirection.Original();
    }
    static bool Fails(std::size_t size) {
        const bool fails = !m_hit && size == m_size;
        m_hit = m_hit || fails;
        return fails;
    }
    static void *Realloc(void *block, std::size_t size) {
        using Function = void *(void *, std::size_t);
        return Fails(size) ? nullptr : reinterpret_cast<Function *>(m_original)(block, size);
    }
    static void *Malloc(std::size_t size) {
        using Function = void *(std::size_t);
        return Fails(size) ? nullptr : reinterpret_cast<Function *>(m_original)(size);
    }

    Simulator::Redirection m_redirection;
    inline static bool m_hit = false;
    inline static std::size_t m_size = 0;
    inline static void *m_original = nullptr;
};

/// Makes a package without a block of wxWidgets.
class Bytes : public wxOutputStream {
public:
    [[nodiscard]] const std::string &Get() const { return m_bytes; }

protected:
    size_t OnSysWrite(const void *buffer, size_t size) override {
        m_bytes.append(static_cast<const char *>(buffer), size);
        return size;
    }

private:
    std::string m_bytes;
};

/// The function that adds the file to a package.
std::string AdderOf(const std::string &file) {
    static const std::map<std::string, std::string> adders{{kStats, "AddDriverStatistics"},
                                                           {kVariables, "AddDriverVariables"},
                                                           {kConnTrack, "AddDriverConnTrack"},
                                                           {kBlacklist, "AddDriverBlacklist"},
                                                           {kProfile, "AddDriverRuleStats"}};
    return adders.at(file);
}

class WxMemory : public DiagnosticMemory {
protected:
    /// A run in which that block fails.
    template <class Make>
    Package RunFailing(Make makeFault, bool &hit) {
        (void)TakeTracedLines();
        Bytes bytes;
        {
            VtaCore::Control::ZipPackage zip(bytes);
            {
                const FailingBlock fault = makeFault();
                RunOn(zip);
                hit = fault.Hit();
            }
            EXPECT_TRUE(zip.Close());
        }
        wxMemoryOutputStream memory;
        memory.WriteAll(bytes.Get().data(), bytes.Get().size());
        return Package(memory);
    }
    /// All files but one are as in a run without a fault; a trace of the function that adds it reports the missing one.
    void ExpectWholeBut(const Package &package, const std::string &leftOut) {
        Names names;
        for (const PackedFile &file : whole.Files()) {
            if (file.name == leftOut)
                continue;
            names.push_back(file.name);
            EXPECT_TRUE(package.Has(file.name) && package.Content(file.name) == file.content) << file.name;
        }
        EXPECT_EQ(package.Names(), names);
        Names failures;
        for (const std::string &message : TakeTracedMessages("diagnostics"))
            if (message.ends_with(" diagnostics failed"))
                failures.push_back(message);
        EXPECT_EQ(failures, Names{AdderOf(leftOut) + " diagnostics failed"});
    }

    const Package whole = Run();
};

TEST_F(WxMemory, AFileThatCannotGrowIsLeftOutAndTheOthersAreComplete) {
    for (const PackedFile &file : whole.Files()) {
        SCOPED_TRACE(file.name);
        bool hit = false;
        const Package package = RunFailing([&file] { return FailingBlock::GrownTo(file.content.size()); }, hit);
        EXPECT_TRUE(hit);
        ExpectWholeBut(package, file.name);
    }
}

TEST_F(WxMemory, AnIncompleteTextIsLeftOut) {
    for (const char *name : {kStats, kVariables}) {
        SCOPED_TRACE(name);
        const std::string content = whole.Content(name);
        const std::size_t lineEnd = content.find("\r\n", content.size() / 2) + 2;
        bool hit = false;
        const Package package = RunFailing([lineEnd] { return FailingBlock::GrownTo(lineEnd); }, hit);
        EXPECT_TRUE(hit);
        ExpectWholeBut(package, name);
    }
}

TEST_F(WxMemory, FilesAreNotCopiedInMemory) {
    for (const PackedFile &file : whole.Files()) {
        SCOPED_TRACE(file.name);
        bool hit = false;
        const Package package = RunFailing([&file] { return FailingBlock::OfSize(file.content.size()); }, hit);
        EXPECT_FALSE(hit);
        EXPECT_EQ(package.Names(), whole.Names());
    }
}

TEST_F(WxMemory, TheProfileIsLeftOutWithoutItsBuffer) {
    constexpr std::size_t bufferBytes = 1024;
    bool hit = false;
    const Package package = RunFailing([] { return FailingBlock::OfSize(bufferBytes); }, hit);
    EXPECT_TRUE(hit);
    ExpectWholeBut(package, kProfile);
}

// --- blocks for the driver's answers ---

/// Notes the bytes of each block of zeros that the module requests.
class ZeroedBlocks {
public:
    ZeroedBlocks() : m_redirection(GetModuleHandleW(L"fc.dll"), "calloc", reinterpret_cast<void *>(&Calloc)) {
        EXPECT_TRUE(m_redirection.Found());
        m_bytes.clear();
        m_original = m_redirection.Original();
    }

    [[nodiscard]] static const std::vector<std::size_t> &Bytes() { return m_bytes; }

private:
    static void *Calloc(std::size_t count, std::size_t size) {
        using Function = void *(std::size_t, std::size_t);
        m_bytes.push_back(count * size);
        return reinterpret_cast<Function *>(m_original)(count, size);
    }

    Simulator::Redirection m_redirection;
    inline static std::vector<std::size_t> m_bytes;
    inline static void *m_original = nullptr;
};

TEST_F(DiagnosticMemory, ABlockForAnAnswerOfTheDriverIsAsLargeAsTheAnswer) {
    driver().blacklist = BytesOf(1'000);
    driver().profile = BytesOf(3'000);
    const ZeroedBlocks blocks;
    (void)Run();
    EXPECT_EQ(blocks.Bytes(), (std::vector<std::size_t>{sizeof(StatsRecord), sizeof(BlacklistRecord) + 1'000,
                                                        sizeof(std::uint32_t) + 3'000}));
}

// --- a driver that claims too much ---

std::size_t PeakMiB() {
    PROCESS_MEMORY_COUNTERS counters{};
    counters.cb = sizeof(counters);
    EXPECT_TRUE(K32GetProcessMemoryInfo(GetCurrentProcess(), &counters, sizeof(counters)));
    return counters.PeakWorkingSetSize >> 20;
}

TEST_F(DiagnosticMemory, MemoryOfAClaimedSizeIsNotTouchedBeforeTheDriverFillsIt) {
    const Package whole = Run();
    const std::size_t before = PeakMiB();
    ASSERT_GT(before, 0U) << "the peak can't be measured";
    driver().claimedBytes = 0xFFFFFFFF;
    const Package package = Run();
    EXPECT_LT(PeakMiB() - before, 64U);
    for (const char *name : {kBlacklist, kProfile})
        EXPECT_EQ(package.Content(name), whole.Content(name)) << "the driver fills in no more than it has";
}

TEST_F(DiagnosticMemory, ARunReleasesEverything) {
    (void)Run();
    const Simulator::BalanceSnapshot before = Settled();
    (void)Run();
    EXPECT_EQ(balance().Difference(before, Settled()), "");
}

TEST_F(DiagnosticMemory, ARunWithAFailedAllocationReleasesEverything) {
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

TEST_F(DiagnosticMemory, ARunWithAFailingDriverReleasesEverything) {
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

TEST_F(DiagnosticMemory, ARunAccessesOnlyItsOwnBlocks) {
    balance().Guard({});
    const Package package = Run();
    balance().StopGuarding();
    EXPECT_EQ(package.Files().size(), 5u);
}

}  // namespace
