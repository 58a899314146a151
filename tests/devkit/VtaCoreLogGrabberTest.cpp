// The log target that collects records into a text.
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "vta_core_control.h"

namespace {

using namespace VtaCore;

/// A target that keeps the level and the text of each record.
class KeepingTarget : public wxLog {
public:
    std::vector<std::pair<wxLogLevel, wxString>> records;

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &) override {
        records.emplace_back(level, message);
    }
};

class LogGrabber : public testing::Test {
protected:
    void SetUp() override { m_original = wxLog::SetActiveTarget(&m_before); }
    void TearDown() override {
        wxLog::SetActiveTarget(m_original);
        wxLog::SetVerbose(false);
    }

    KeepingTarget m_before;
    wxLog *m_original = nullptr;
};

TEST_F(LogGrabber, IsNotActiveByItself) {
    wxString text;
    const CLogGrabber grabber(text, true, true);
    EXPECT_EQ(wxLog::GetActiveTarget(), &m_before);
    wxLogMessage("elsewhere");
    EXPECT_EQ(text, "");
    EXPECT_EQ(m_before.records.size(), 1u);
}

TEST_F(LogGrabber, CollectsEachRecordFollowedByALineFeed) {
    wxString text = "before|";
    CLogGrabber grabber(text, false, false);
    wxLog::SetActiveTarget(&grabber);
    wxLogMessage("one");
    wxLogWarning(L"two \u00FC");
    wxLogError("three\nfour");
    wxLog::SetActiveTarget(&m_before);
    EXPECT_EQ(text, L"before|one\ntwo \u00FC\nthree\nfour\n");
    EXPECT_TRUE(m_before.records.empty()) << "nothing is passed on";
}

TEST_F(LogGrabber, PassesEachRecordOnToThePreviousTarget) {
    wxString text;
    CLogGrabber grabber(text, true, false);
    wxLog::SetActiveTarget(&grabber);
    wxLog::SetVerbose(true);
    wxLogWarning("warning");
    wxLogVerbose("verbose");
    wxLog::SetActiveTarget(&m_before);
    EXPECT_EQ(text, "warning\n");
    const std::vector<std::pair<wxLogLevel, wxString>> expected{{wxLOG_Warning, "warning"}, {wxLOG_Info, "verbose"}};
    EXPECT_EQ(m_before.records, expected);
}

TEST_F(LogGrabber, CollectsTheLevelInfoOnlyOnRequest) {
    wxLog::SetVerbose(true);
    for (bool withVerbose : {false, true}) {
        wxString text;
        CLogGrabber grabber(text, false, withVerbose);
        wxLog::SetActiveTarget(&grabber);
        wxLogVerbose("verbose");
        wxLogMessage("message");
        wxLog::SetActiveTarget(&m_before);
        EXPECT_EQ(text, withVerbose ? "verbose\nmessage\n" : "message\n");
    }
}

TEST_F(LogGrabber, CanBeTheTargetOfAnotherThreadOnly) {
    wxString text;
    CLogGrabber grabber(text, false, false);
    std::thread other([&grabber] {
        wxLog *const previous = wxLog::SetThreadActiveTarget(&grabber);
        wxLogMessage("from the thread");
        wxLog::SetThreadActiveTarget(previous);
    });
    other.join();
    wxLogMessage("from the main thread");
    EXPECT_EQ(text, "from the thread\n");
    ASSERT_EQ(m_before.records.size(), 1u);
    EXPECT_EQ(m_before.records[0].second, "from the main thread");
}

TEST_F(LogGrabber, CreatedInAThreadPassesOnToThatThreadsTarget) {
    KeepingTarget threadTarget;
    wxString text;
    std::thread other([&] {
        wxLog::SetThreadActiveTarget(&threadTarget);
        {
            CLogGrabber grabber(text, true, false);
            wxLog::SetThreadActiveTarget(&grabber);
            wxLogMessage("text");
            wxLog::SetThreadActiveTarget(&threadTarget);
        }
        wxLog::SetThreadActiveTarget(nullptr);
    });
    other.join();
    EXPECT_EQ(text, "text\n");
    EXPECT_EQ(threadTarget.records.size(), 1u);
    EXPECT_TRUE(m_before.records.empty());
}

TEST_F(LogGrabber, KeepsTheLinesOfSeveralThreadsComplete) {
    constexpr int kThreads = 8;
    constexpr int kLines = 500;
    wxString text;
    CLogGrabber grabber(text, false, false);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&grabber] {
            wxLog::SetThreadActiveTarget(&grabber);
            for (int i = 0; i < kLines; ++i)
                wxLogMessage("a whole line");
            wxLog::SetThreadActiveTarget(nullptr);
        });
    for (std::thread &thread : threads)
        thread.join();
    wxString expected;
    for (int i = 0; i < kThreads * kLines; ++i)
        expected += "a whole line\n";
    EXPECT_TRUE(text == expected);
}

}  // namespace
