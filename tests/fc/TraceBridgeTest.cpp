// The driver library's own trace as the agent's trace lines, through SLB.filter and the callback that it sets.

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "CodePage.h"
#include "LogCollector.h"
#include "ModuleFixture.h"
#include "vta_core_control.h"
#include "vti_control.h"

namespace {

/// What the system makes of the bytes in the code page; it replaces those that are no text there.
std::string InCodePage(const std::string &bytes) {
    std::array<wchar_t, 64> wide{};
    EXPECT_NE(MultiByteToWideChar(CP_ACP, 0, bytes.c_str(), -1, wide.data(), static_cast<int>(wide.size())), 0);
    return wxString(wide.data()).utf8_string();
}

class TraceBridge : public ModuleFixture {
protected:
    TraceBridge() : m_handle(vti_open()) {
        PushHandle(lua, m_handle);
        lua_setglobal(lua, "handle");
        lua.Run("setup = SLB.filter.setup_qbtrace");
        (void)TakeTracedLines();
        driver().calls.clear();
    }
    ~TraceBridge() override {
        vti_close(m_handle);
        VtaCore::Control::EnableTrace("*", false);
        (void)TakeTracedLines();
        Vti::Reset();
    }

    /// The userdata that the agent's module would create.
    static void PushHandle(lua_State *state, vti_handle_t *handle) {
        *static_cast<vti_handle_t **>(lua_newuserdata(state, sizeof(void *))) = handle;
        luaL_newmetatable(state, "vti_handle_t*");
        lua_setmetatable(state, -2);
    }
    static void Enable(bool enabled) { VtaCore::Control::EnableTrace("VTI", enabled); }
    /// Sets the bridge up with the component enabled.
    vti_trace_handler Handler() {
        Enable(true);
        lua.Run("setup(handle)");
        return driver().traceHandler;
    }
    static Vti::Driver &driver() { return Vti::TheDriver(); }

    vti_handle_t *const m_handle;
};

using Calls = std::vector<std::string>;

TEST_F(TraceBridge, SetsLevelThreeAndThenTheCallbackWhenTheComponentIsEnabled) {
    Enable(true);
    lua.Run("setup(handle)");
    EXPECT_EQ(driver().calls, (Calls{"vti_set_trace_level(3)", "vti_set_trace_handler(handler)"}));
    EXPECT_EQ(driver().traceLevel, 3);
    EXPECT_NE(driver().traceHandler, nullptr);
}

TEST_F(TraceBridge, SetsLevelZeroAndNoCallbackWhenTheComponentIsDisabled) {
    VtaCore::Control::EnableTrace("*", true);
    Enable(false);
    lua.Run("setup(handle)");
    EXPECT_EQ(driver().calls, Calls{"vti_set_trace_level(0)"});
    EXPECT_EQ(driver().traceHandler, nullptr);
}

TEST_F(TraceBridge, KeepsTheEarlierCallbackWhenTheComponentIsDisabled) {
    const vti_trace_handler handler = Handler();
    ASSERT_NE(handler, nullptr);
    Enable(false);
    lua.Run("setup(handle)");
    EXPECT_EQ(driver().traceLevel, 0);
    EXPECT_EQ(driver().traceHandler, handler);
}

TEST_F(TraceBridge, AComponentThatIsEnabledLaterTakesEffectAtTheNextCall) {
    lua.Run("setup(handle)");
    Enable(true);
    Vti::Trace(2, "a", "b.c", 7, "t");
    EXPECT_TRUE(TakeTracedLines().empty());
    lua.Run("setup(handle)");
    Vti::Trace(2, "a", "b.c", 7, "t");
    EXPECT_EQ(TakeTracedLines().size(), 1U);
}

TEST_F(TraceBridge, ReturnsNothingAndIgnoresFurtherArguments) {
    EXPECT_EQ(lua.Eval("select('#', setup(handle, 1, {}))"), "0");
}

TEST_F(TraceBridge, RaisesAnArgumentErrorForAString) {
    EXPECT_NE(lua.ErrorOf("setup('handle')").find("bad argument #1 to 'setup' (vti handle expected)"),
              std::string::npos);
    EXPECT_TRUE(driver().calls.empty());
}

TEST_F(TraceBridge, RaisesAnArgumentErrorForAnythingButADriverHandle) {
    for (const char *value :
         {"", "nil", "1", "true", "{}", "print", "io.stdout", "debug.upvalueid(function() setup() end, 1)",
          "coroutine.create(print)", "setmetatable({}, debug.getmetatable(handle))"})
        EXPECT_NE(lua.ErrorOf(std::string("setup(") + value + ")").find("#1 to 'setup' (vti handle expected)"),
                  std::string::npos)
            << value;
    lua_newuserdata(lua, sizeof(void *));
    lua_setglobal(lua, "foreign");
    EXPECT_NE(lua.ErrorOf("setup(foreign)"), "") << "without a metatable";
    EXPECT_TRUE(driver().calls.empty());
}

TEST_F(TraceBridge, PassesTheNullWordOfAClosedHandleToTheLibrary) {
    PushHandle(lua, nullptr);
    lua_setglobal(lua, "closed");
    Enable(true);
    lua.Run("setup(closed)");
    EXPECT_EQ(driver().calls, (Calls{"vti_set_trace_level(3)", "vti_set_trace_handler(handler)"}));
    Enable(false);
    lua.Run("setup(closed)");
    EXPECT_EQ(driver().calls.back(), "vti_set_trace_level(0)");
    EXPECT_EQ(driver().traceHandler, nullptr) << "the library refuses a closed handle";
}

TEST_F(TraceBridge, IgnoresTheLibrarysResults) {
    driver().faults["vti_set_trace_level"] = {-5, "no"};
    driver().faults["vti_set_trace_handler"] = {-6, "no"};
    Enable(true);
    EXPECT_EQ(lua.Eval("select('#', setup(handle))"), "0");
    EXPECT_EQ(driver().calls, (Calls{"vti_set_trace_level(3)", "vti_set_trace_handler(handler)"}));
    EXPECT_TRUE(VtaCore::Control::TakeEvents().empty());
}

TEST_F(TraceBridge, KeepsNoReferenceToTheHandleOrTheState) {
    Enable(true);
    const auto calls = [&] {
        LuaState own;
        Open(own);
        PushHandle(own, m_handle);
        lua_setglobal(own, "handle");
        own.Run("for i = 1, 10 do SLB.filter.setup_qbtrace(handle) pcall(SLB.filter.setup_qbtrace) end");
        driver().calls = {};
    };
    calls();
    const Simulator::BalanceSnapshot before = balance().Take();
    calls();
    EXPECT_EQ(Simulator::Balance::Left(before, balance().Take()).size(), 0U)
        << balance().Difference(before, balance().Take());
    EXPECT_EQ(driver().openHandles, 1);
}

TEST_F(TraceBridge, ALineOfTheLibraryBecomesATraceLineOfTheComponent) {
    ASSERT_NE(Handler(), nullptr);
    Vti::Trace(2, "a", "b.c", 7, "t");
    const std::vector<VtaCore::Control::TraceLine> lines = VtaCore::Control::TakeTraces();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].message, "a/2  | t | b.c:7\n");
    EXPECT_EQ(lines[0].component, "VTI");
    EXPECT_EQ(lines[0].file, "TraceBridge.cpp");
    EXPECT_EQ(lines[0].function, "qb_trace_handler");
    EXPECT_GT(lines[0].line, 0);
}

TEST_F(TraceBridge, ACallbackAfterTheComponentWasDisabledLogsNothingAndReturnsZero) {
    const vti_trace_handler handler = Handler();
    EXPECT_EQ(handler(2, "a", "b.c", 7, "t"), 0);
    EXPECT_EQ(TakeTracedLines().size(), 1U);
    Enable(false);
    EXPECT_EQ(handler(2, "a", "b.c", 7, "t"), 0);
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(TraceBridge, NumbersOfALineAreSigned) {
    EXPECT_EQ(Handler()(INT32_MIN, "", "", -1, ""), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"/-2147483648  |  | :-1\n"});
}

TEST_F(TraceBridge, PercentSignsAndLineFeedsOfTheLibraryAreUnchanged) {
    EXPECT_EQ(Handler()(1, "%s%n", "%d.c", 2, "100%\n%ls"), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"%s%n/1  | 100%\n%ls | %d.c:2\n"});
}

TEST_F(TraceBridge, MissingStringsAreEmpty) {
    EXPECT_EQ(Handler()(1, nullptr, nullptr, 2, nullptr), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"/1  |  | :2\n"});
}

TEST_F(TraceBridge, AVeryLongTextIsNotTruncated) {
    const std::string text(200'000, 'x');
    EXPECT_EQ(Handler()(1, "a", "b", 2, text.c_str()), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"a/1  | " + text + " | b:2\n"});
}

TEST_F(TraceBridge, StringsAreInTheEncodingOfTheCurrentLocale) {
    const std::string bytes = "\x80\xE4\xDF";
    const std::string expected = InCodePage(bytes);
    EXPECT_EQ(Handler()(1, bytes.c_str(), bytes.c_str(), 2, bytes.c_str()), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{expected + "/1  | " + expected + " | " + expected + ":2\n"});
}

TEST_F(TraceBridge, AStringThatIsValidInTheLocaleAndInUtf8IsReadInThatOfTheLocale) {
    const std::string bytes = "\xC3\xA4";
    EXPECT_EQ(Handler()(1, "a", "b", 2, bytes.c_str()), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"a/1  | " + InCodePage(bytes) + " | b:2\n"});
}

TEST_F(TraceBridge, StringsInAnotherEncodingAreStillRead) {
    for (const CodePageText &text : TextsOutsideCodePage()) {
        EXPECT_EQ(Handler()(1, "a", "b", 2, text.narrow.c_str()), 0);
        EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"a/1  | " + text.utf8 + " | b:2\n"});
    }
    const std::string neither = "ger\xE4t \xFF\x81 ended";
    EXPECT_EQ(Handler()(1, "a", "b", 2, neither.c_str()), 0);
    EXPECT_EQ(TakeTracedMessages("VTI"), Calls{"a/1  | " + InCodePage(neither) + " | b:2\n"});
}

/// Threads that trace at the same time, each its own numbered lines.
class TracingThreads {
public:
    static constexpr int kThreads = 4;
    static constexpr int kLines = 2'000;

    explicit TracingThreads(vti_trace_handler handler) : m_handler(handler) {}

    /// @param meanwhile  again and again until all threads have ended.
    void Run(const std::function<void()> &meanwhile) {
        std::atomic<int> running{kThreads};
        std::vector<std::thread> threads;
        for (int thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([&, thread] {
                for (int line = 0; line < kLines; ++line)
                    m_bad += m_handler(thread, "s", "f", line, "text") != 0;
                --running;
            });
        while (running != 0)
            meanwhile();
        for (std::thread &thread : threads)
            thread.join();
    }
    /// How many answers were not 0.
    [[nodiscard]] int Bad() const { return m_bad; }

    /// Takes the lines, each of which must be whole, and come once and in its thread's order.
    /// @return how many there are.
    static std::size_t TakeWholeLines() {
        std::array<int, kThreads> last{};
        last.fill(-1);
        const Calls messages = TakeTracedMessages("VTI");
        for (const std::string &message : messages) {
            int thread = -1;
            int line = -1;
            // NOLINTNEXTLINE(cert-err34-c): the numbers are small
            EXPECT_EQ(std::sscanf(message.c_str(), "s/%d  | text | f:%d\n", &thread, &line), 2) << message;
            if (thread < 0 || thread >= kThreads) {
                ADD_FAILURE() << message;
                continue;
            }
            int &previous = last.at(static_cast<std::size_t>(thread));
            EXPECT_GT(line, previous) << "each line once, in the thread's order";
            previous = line;
        }
        return messages.size();
    }

private:
    vti_trace_handler m_handler;
    std::atomic<int> m_bad{0};
};

TEST_F(TraceBridge, NoLineOfSeveralThreadsIsLost) {
    TracingThreads threads(Handler());
    threads.Run([] { std::this_thread::yield(); });
    EXPECT_EQ(threads.Bad(), 0);
    EXPECT_EQ(threads.TakeWholeLines(), std::size_t{TracingThreads::kThreads} * TracingThreads::kLines);
}

TEST_F(TraceBridge, LinesOfSeveralThreadsAreCompleteWhileTheComponentIsSwitchedOnAndOff) {
    const vti_trace_handler handler = Handler();
    TracingThreads threads(handler);
    threads.Run([] {
        Enable(false);
        std::this_thread::yield();
        Enable(true);
        std::this_thread::yield();
    });
    EXPECT_EQ(threads.Bad(), 0);
    (void)threads.TakeWholeLines();  // how many there are is up to the switching
    EXPECT_EQ(handler(0, "s", "f", 1, "text"), 0);
    EXPECT_EQ(TakeTracedLines().size(), 1U) << "it still traces";
}

}  // namespace
