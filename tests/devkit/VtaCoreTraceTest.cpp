// Trace lines and their switches, notifications, and the observer of both.
#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "vta_core_control.h"

namespace {

using namespace VtaCore;

class Tracing : public testing::Test {
protected:
    void SetUp() override { Reset(); }
    void TearDown() override { Reset(); }

    static void Reset() {
        Control::SetObserver(nullptr);
        Control::EnableTrace("*", false);
        Control::TakeTraces();
        Control::TakeEvents();
        Control::TakeNotifications();
    }

    static void Trace(const wxString &component, const wxString &message) {
        LogTrace(component, "File.cpp", 42, "Class::Function", message);
    }
};

TEST_F(Tracing, IsOffAtFirst) {
    EXPECT_FALSE(LogTraceIsEnabled(L"filter"));
    EXPECT_FALSE(LogTraceIsEnabled(wxString("filter")));
    Trace("filter", "text");
    EXPECT_TRUE(Control::TakeTraces().empty());
}

TEST_F(Tracing, OfAnEnabledComponentIsRecordedCompletely) {
    Control::EnableTrace("filter", true);
    EXPECT_TRUE(LogTraceIsEnabled(L"filter"));
    EXPECT_TRUE(LogTraceIsEnabled(wxString("filter")));
    Trace("filter", L"\u00FC");
    Trace("other", "unwanted");
    Trace("filter", "second");
    const std::vector<Control::TraceLine> lines = Control::TakeTraces();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].component, "filter");
    EXPECT_EQ(lines[0].file, "File.cpp");
    EXPECT_EQ(lines[0].line, 42);
    EXPECT_EQ(lines[0].function, "Class::Function");
    EXPECT_EQ(lines[0].message, L"\u00FC");
    EXPECT_EQ(lines[1].message, "second");
    EXPECT_TRUE(Control::TakeTraces().empty()) << "taken once only";
}

TEST_F(Tracing, IsSwitchedPerComponentByItsFullName) {
    Control::EnableTrace("filter", true);
    for (const wchar_t *other : {L"filte", L"filter2", L"Filter", L""})
        EXPECT_FALSE(LogTraceIsEnabled(other)) << wxString(other).utf8_str();
    Control::EnableTrace("filter", false);
    EXPECT_FALSE(LogTraceIsEnabled(L"filter"));
}

TEST_F(Tracing, TheStarMeansAllComponentsIncludingThoseNamedLater) {
    Control::EnableTrace("*", true);
    EXPECT_TRUE(LogTraceIsEnabled(L"never named"));
    Control::EnableTrace("*", false);
    EXPECT_FALSE(LogTraceIsEnabled(L"never named"));
}

TEST_F(Tracing, ASingleComponentCanDifferFromAllUntilAllAreSwitchedAgain) {
    Control::EnableTrace("*", true);
    Control::EnableTrace("noisy", false);
    EXPECT_FALSE(LogTraceIsEnabled(L"noisy"));
    EXPECT_TRUE(LogTraceIsEnabled(L"filter"));
    Control::EnableTrace("*", true);
    EXPECT_TRUE(LogTraceIsEnabled(L"noisy"));
    Control::EnableTrace("filter", true);
    Control::EnableTrace("*", false);
    EXPECT_FALSE(LogTraceIsEnabled(L"filter"));
}

TEST_F(Tracing, AcceptsNoFileAndNoFunction) {
    Control::EnableTrace("filter", true);
    LogTrace("filter", nullptr, 0, nullptr, "text");
    const std::vector<Control::TraceLine> lines = Control::TakeTraces();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].file, "");
    EXPECT_EQ(lines[0].function, "");
}

TEST_F(Tracing, DropsTheOldestLinesWhenThereAreTooMany) {
    Control::EnableTrace("filter", true);
    constexpr std::size_t kExtra = 10;
    for (std::size_t i = 0; i < Control::kMaxRecords + kExtra; ++i)
        Trace("filter", std::to_string(i));
    const std::vector<Control::TraceLine> lines = Control::TakeTraces();
    ASSERT_EQ(lines.size(), Control::kMaxRecords);
    EXPECT_EQ(lines.front().message, std::to_string(kExtra));
    EXPECT_EQ(lines.back().message, std::to_string(Control::kMaxRecords + kExtra - 1));
}

/// Records what it is told, and whether two calls ever overlapped.
class Notes : public Control::Observer {
public:
    void OnTrace(const Control::TraceLine &line) override { Note(line.message); }
    void OnEvent(const Control::Event &event) override { Note(event.text); }
    void OnNotification(const Control::Notification &notification) override { Note(notification.text); }

    void Note(const wxString &text) {
        if (m_inside.exchange(true))
            overlapped = true;
        texts.push_back(text);
        threads.push_back(GetCurrentThreadId());
        m_inside = false;
    }

    std::vector<wxString> texts;
    std::vector<DWORD> threads;
    std::atomic<bool> overlapped{false};

private:
    std::atomic<bool> m_inside{false};
};

TEST_F(Tracing, TheObserverIsToldOfEverythingInOrderOnTheSameThread) {
    Notes notes;
    Control::SetObserver(&notes);
    Control::EnableTrace("filter", true);
    Control::Dom dom;
    Trace("filter", "trace");
    Trace("other", "unwanted");
    dom.DoAgentEventWrite(1, L"event");
    ShowUserNotification(2, "user", "detail");
    ShowRebootNotification(RebootReasonFilterDriver);
    EXPECT_EQ(notes.texts, (std::vector<wxString>{"trace", "event", "user", ""}));
    EXPECT_EQ(notes.threads, std::vector<DWORD>(4, GetCurrentThreadId()));
    Control::SetObserver(nullptr);
    Trace("filter", "after");
    EXPECT_EQ(notes.texts.size(), 4u);
}

TEST_F(Tracing, TheObserverMayCallTheLibrary) {
    struct Caller : Control::Observer {
        void OnTrace(const Control::TraceLine &) override {
            taken = Control::TakeTraces().size();
            Control::EnableTrace("filter", false);
            ShowUserNotification(0, "from the observer", "");
            Control::SetObserver(nullptr);
        }
        std::size_t taken = 0;
    } caller;
    Control::SetObserver(&caller);
    Control::EnableTrace("filter", true);
    Trace("filter", "text");
    EXPECT_EQ(caller.taken, 1u);
    EXPECT_FALSE(LogTraceIsEnabled(L"filter"));
    EXPECT_EQ(Control::TakeNotifications().size(), 1u);
}

TEST_F(Tracing, NotificationsAreRecordedWithTheirKind) {
    ShowUserNotification(2, L"text \u00FC", "detail");
    ShowRebootNotification(RebootReasonFilterDriver);
    const std::vector<Control::Notification> shown = Control::TakeNotifications();
    ASSERT_EQ(shown.size(), 2u);
    EXPECT_EQ(shown[0].kind, Control::Notification::Kind::User);
    EXPECT_EQ(shown[0].code, 2);
    EXPECT_EQ(shown[0].text, L"text \u00FC");
    EXPECT_EQ(shown[0].detail, "detail");
    EXPECT_EQ(shown[1].kind, Control::Notification::Kind::Reboot);
    EXPECT_EQ(shown[1].code, 5);
}

TEST_F(Tracing, EightThreadsCanTraceWhileComponentsAreSwitched) {
    constexpr int kThreads = 8;
    constexpr int kLines = 2000;
    Notes notes;
    Control::SetObserver(&notes);
    Control::EnableTrace("steady", true);
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&finished] {
            for (int i = 0; i < kLines; ++i) {
                LogTrace("steady", "File.cpp", i, "Function", "text");
                LogTrace("switched", "File.cpp", i, "Function", "text");
            }
            ++finished;
        });
    for (bool on = true; finished < kThreads; on = !on) {
        Control::EnableTrace("switched", on);
        std::this_thread::yield();
    }
    for (std::thread &thread : threads)
        thread.join();
    Control::SetObserver(nullptr);
    const std::vector<Control::TraceLine> lines = Control::TakeTraces();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const auto &line) { return line.component == "steady"; }),
              kThreads * kLines);
    EXPECT_EQ(notes.texts.size(), lines.size());
    EXPECT_FALSE(notes.overlapped);
}

}  // namespace
