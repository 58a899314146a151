// The file to which the settings of a policy are written, and policies without memory.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <cJSON.h>

#include "PolicyFixture.h"
#include "TracedPlaces.h"
#include "WindowsFunctions.h"

namespace {

// ---- The written file

/// The previous content of the output file, which stays if the file can't be written.
constexpr char kLongBefore[] = "a text that is longer than the one that takes its place: 0123456789 0123456789";

class WrittenPolicy : public Policy {
protected:
    WrittenPolicy() { Before(); }

    void Before() {
        std::FILE *file = _wfopen(JsonPath().c_str(), L"wb");
        ASSERT_NE(file, nullptr);
        EXPECT_GE(std::fputs(kLongBefore, file), 0);
        ASSERT_EQ(std::fclose(file), 0);
    }

    /// The iteration continues without the output.
    void ExpectNoOutput(const std::string &message) {
        const Heard heard = ReadPolicy(kGood);
        EXPECT_EQ(heard.action, kNormal);
        EXPECT_EQ(heard.count, 1);
        EXPECT_EQ(heard.EngineLines("Fail"), Messages{message});
        ExpectTraced(heard.traces, {{message, "outputCloudConfig", "CloudConfig.cpp"}});
        EXPECT_EQ(heard.errors, Messages{"Failed to output cloud config"});
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kFile), 0u);
    }

    /// The module can open files only for reading.
    void OpenForReadingAlone() {
        simulation().Functions().Put<Simulator::System::fopen>(
            [](const auto &next, const char *path, const char *) { return next(path, "r"); });
        simulation().Functions().Put<Simulator::System::_wfopen>(
            [](const auto &next, const wchar_t *path, const wchar_t *) { return next(path, L"r"); });
    }
};

TEST_F(WrittenPolicy, ReplacesTheWholeFile) {
    EXPECT_EQ(ReadPolicy(kGood).errors, Messages());
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(WrittenPolicy, AMissingFolderIsReported) {
    std::filesystem::remove_all(JsonPath().parent_path());
    ExpectNoOutput("Failed to open file of json config for writing.");
    EXPECT_FALSE(std::filesystem::exists(JsonPath().parent_path()));
}

TEST_F(WrittenPolicy, AFileThatCannotBeOpenedIsReportedAndUnchanged) {
    const auto fault = simulation().GetFaults().FailNthOf({"fopen", "_wfopen", "fopen_s", "_wfopen_s"}, 1, EACCES);
    ExpectNoOutput("Failed to open file of json config for writing.");
    EXPECT_TRUE(fault->Hit());
    EXPECT_EQ(WrittenJson(), kLongBefore);
}

TEST_F(WrittenPolicy, AFileThatCannotBeWrittenIsReportedAndClosed) {
    OpenForReadingAlone();
    ExpectNoOutput("Failed to write json config to file");
    EXPECT_EQ(WrittenJson(), kLongBefore);
}

TEST_F(WrittenPolicy, ATextThatCannotBePutOrFlushedIsReportedAndItsFileClosed) {
    for (const char *function : {"fputs", "fflush"}) {
        SCOPED_TRACE(function);
        const auto fault = simulation().GetFaults().FailNth(function, 1, ENOSPC);
        ExpectNoOutput("Failed to write json config to file");
        EXPECT_TRUE(fault->Hit());
        simulation().GetFaults().Clear();
    }
    EXPECT_EQ(ReadPolicy(kGood).errors, Messages());
    EXPECT_EQ(WrittenJson(), kGoodWritten);
}

TEST_F(WrittenPolicy, AFailureOfTheOutputDoesNotChangeTheAction) {
    std::filesystem::remove_all(JsonPath().parent_path());
    EXPECT_EQ(ReadPolicy("{}").action, kDisabled);
    EXPECT_EQ(ReadPolicy("{").action, kNormal);
    EXPECT_EQ(ReadPolicy(kGood, "Activated").action, kFailOpen);
}

// ---- Without memory

/// The memory of the module's cJSON, of which one allocation fails.
class JsonMemory {
public:
    static void Use(HMODULE module) {
        cJSON_Hooks hooks{&Allocate, &Free};
        const auto init = reinterpret_cast<decltype(&cJSON_InitHooks)>(
            reinterpret_cast<void *>(GetProcAddress(module, "cJSON_InitHooks")));
        ASSERT_NE(init, nullptr);
        init(&hooks);
    }
    /// @param nth  from 1; 0 for none.
    static void Fail(unsigned nth) {
        m_asked = 0;
        m_failing = nth;
    }
    /// Blocks since then.
    static unsigned Asked() { return m_asked; }
    /// Blocks in use.
    static int Alive() { return m_alive; }

private:
    static void *CJSON_CDECL Allocate(std::size_t size) {
        void *block = ++m_asked == m_failing ? nullptr : std::malloc(size);
        m_alive += block != nullptr;
        return block;
    }
    static void CJSON_CDECL Free(void *block) {
        m_alive -= block != nullptr;
        std::free(block);
    }

    static inline unsigned m_asked = 0;
    static inline unsigned m_failing = 0;
    static inline int m_alive = 0;
};

class PolicyWithoutMemory : public WrittenPolicy {
protected:
    PolicyWithoutMemory() { JsonMemory::Use(GetModuleHandleW(L"fc.dll")); }

    Heard ReadWithout(unsigned nth) {
        Before();
        JsonMemory::Fail(nth);
        Heard heard = ReadPolicy(AllMembers());
        m_wasAsked = JsonMemory::Asked() >= nth;
        JsonMemory::Fail(0);
        return heard;
    }
    [[nodiscard]] bool WasAsked() const { return m_wasAsked; }

    /// The expected file, depending on whether the output was abandoned with that message.
    void ExpectOutputOf(const Heard &heard) {
        const Messages failures = heard.EngineLines("Fail");
        EXPECT_EQ(heard.errors, failures.empty() ? Messages() : Messages{"Failed to output cloud config"});
        if (!failures.empty()) {
            EXPECT_EQ(WrittenJson(), kLongBefore);
        } else if (heard.count) {
            EXPECT_GE(WrittenKeys().size(), 12u) << WrittenJson();
        } else {
            EXPECT_EQ(WrittenJson(), kNothingWritten);
        }
    }

private:
    bool m_wasAsked = false;
};

TEST_F(PolicyWithoutMemory, EachFailedAllocationAffectsOnlyItsPurpose) {
    std::vector<TracedLine> traces;
    unsigned nth = 1;
    for (; nth < 1000; ++nth) {
        SCOPED_TRACE("without block " + std::to_string(nth));
        const Heard heard = ReadWithout(nth);
        if (!WasAsked())
            break;
        EXPECT_EQ(heard.action, kNormal);
        EXPECT_EQ(heard.EngineLines("json parsing error [").size(), heard.count ? 0u : 1u);
        ExpectOutputOf(heard);
        ASSERT_EQ(JsonMemory::Alive(), 0);
        traces.insert(traces.end(), heard.traces.begin(), heard.traces.end());
    }
    EXPECT_GT(nth, 60u) << "the policy alone has that many items";
    ExpectTraced(traces, {{"json parsing error [", "readSystemHealthPolicy", "HealthPolicy.cpp"},
                          {"Fail to cJSON_CreateObject for root", "outputCloudConfig", "CloudConfig.cpp"},
                          {"Fail to cJSON_CreateObject for object", "outputCloudConfig", "CloudConfig.cpp"},
                          {"Fail to print JSON", "outputCloudConfig", "CloudConfig.cpp"}});
}

TEST_F(PolicyWithoutMemory, TheNextIterationIsCompleteAgain) {
    for (const unsigned nth : {1u, 40u, 80u, 100u}) {
        (void)ReadWithout(nth);
        EXPECT_TRUE(WasAsked());
        EXPECT_EQ(ReadPolicy(AllMembers()).count, 13);
        EXPECT_EQ(WrittenJson(), kAllMembersWritten);
    }
}

}  // namespace
