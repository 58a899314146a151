// The call stack of a real thread.
#include "WindowsDriverInstaller/StackDump.h"

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>
#include <wx/log.h>
#include <wx/tokenzr.h>

#include "Event.h"
#include "Simulation.h"
#include "WindowsFunctions.h"

namespace {

SIMULATOR_FUNCTION(GetThreadContext, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(ResumeThread, "KERNEL32.dll", ReturnsMinusOne);

/// Sleeps, so many calls deep, until it is let go.
class SleepingThread : public wxThread {
public:
    explicit SleepingThread(unsigned depth) : wxThread(wxTHREAD_JOINABLE), m_depth(depth) { (void)Create(); }

    Simulator::Event reached;
    Simulator::Event letGo;

protected:
    ExitCode Entry() override {
        (void)Descend(m_depth);
        return nullptr;
    }

private:
    // NOLINTNEXTLINE(misc-no-recursion): the recursion is what the test needs
    [[gnu::noinline]] unsigned Descend(unsigned depth) {
        if (depth > 0)
            return Descend(depth - 1) + (letGo.IsSet() ? 1U : 0U);
        const Simulator::InsideSimulator inside;
        reached.Set();
        while (!letGo.IsSet())
            Sleep(20);
        return 0;
    }

    unsigned m_depth;
};

/// The thread stands in its sleep, and must go on to its end.
class StackDumpOf : public testing::Test {
protected:
    StackDumpOf() {
        functions().PassThrough<GetThreadContext>();
        functions().PassThrough<SuspendThread>();
        functions().PassThrough<ResumeThread>();
        for (const wchar_t *name : {static_cast<const wchar_t *>(nullptr), L"wxbase32u_gcc_custom.dll"})
            EXPECT_NE(m_simulation.Attach(GetModuleHandleW(name)), 0U);
    }

    /// The dump of a thread that sleeps so deep; afterwards the thread must run to its end.
    std::string Capture(unsigned depth) {
        SleepingThread thread(depth);
        EXPECT_EQ(thread.Run(), wxTHREAD_NO_ERROR);
        EXPECT_TRUE(thread.reached.Wait(10'000));
        (void)journal().Take();
        const std::size_t handles = OpenHandles();
        std::string text = CaptureThreadStack(&thread).utf8_string();
        EXPECT_EQ(OpenHandles(), handles);
        EXPECT_TRUE(thread.IsRunning());
        m_names = journal().Names();
        thread.letGo.Set();
        (void)thread.Wait();
        return text;
    }
    [[nodiscard]] std::size_t Calls(const std::string &function) const {
        return static_cast<std::size_t>(std::count(m_names.begin(), m_names.end(), function));
    }
    [[nodiscard]] std::size_t OpenHandles() { return m_simulation.GetBalance().Take().Count(Simulator::Kind::kHandle); }
    Simulator::FunctionSet &functions() { return m_simulation.Functions(); }
    Simulator::Journal &journal() { return m_simulation.GetJournal(); }
    Simulator::Faults &faults() { return m_simulation.GetFaults(); }

private:
    Simulator::Simulation m_simulation{{.registry = false, .folders = false}};
    std::vector<std::string> m_names;
};

/// Each line has its number, and a frame such as "ntdll:NtDelayExecution+20" or "program:0000000140001000".
void ExpectNumberedFrames(const std::string &text) {
    static const std::regex frame(R"(\[(\d{2,})\] ([^:]+:)?(.+\+\d+|[0-9A-Fa-fx]+))");
    const wxArrayString lines = wxStringTokenize(wxString::FromUTF8(text), "\n", wxTOKEN_RET_EMPTY_ALL);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string line = lines[i].utf8_string();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, frame)) << line;
        EXPECT_EQ(std::stoul(match[1]), i) << line;
    }
}

std::size_t FrameCount(const std::string &text) {
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1;
}

TEST_F(StackDumpOf, ASleepingThreadNumbersItsFramesFromZero) {
    const std::string text = Capture(10);
    ASSERT_EQ(text.rfind("[00] ", 0), 0U) << text;
    EXPECT_GT(FrameCount(text), 10U) << text;
    ExpectNumberedFrames(text);
    EXPECT_EQ(Calls("OpenThread"), 1U);
    EXPECT_EQ(Calls("ResumeThread"), 1U);
}

TEST_F(StackDumpOf, ADeepRecursionHas200Frames) {
    const std::string text = Capture(300);
    EXPECT_EQ(FrameCount(text), 200U);
    ExpectNumberedFrames(text);
}

TEST_F(StackDumpOf, AThreadThatCantBePausedIsEmptyAndIsNotResumed) {
    const wxLogNull quiet;
    const auto plan = faults().FailNth("SuspendThread", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Capture(0), "");
    EXPECT_TRUE(plan->Hit());
    EXPECT_EQ(Calls("OpenThread"), 0U);
    EXPECT_EQ(Calls("ResumeThread"), 0U);
}

TEST_F(StackDumpOf, AThreadThatCantBeOpenedOrReadIsEmptyAndGoesOn) {
    for (const char *function : {"OpenThread", "GetThreadContext"}) {
        // Every call: wxThread reads the context of a thread that it pauses, too.
        const auto plan = faults().FailEvery(function, ERROR_ACCESS_DENIED);
        EXPECT_EQ(Capture(0), "") << function;
        EXPECT_TRUE(plan->Hit()) << function;
        EXPECT_EQ(Calls("ResumeThread"), 1U) << function;
        faults().Clear();
    }
}

}  // namespace
