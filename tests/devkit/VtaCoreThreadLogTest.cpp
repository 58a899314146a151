// What the host is told about the agent's threads.
#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "thread_log_control.h"

namespace {

using namespace VtaCore;

/// Records what it is told about one thread.
class NotingListener : public Control::ThreadListener {
public:
    void OnThreadBegin(DWORD, const char *name) override { Note(std::string("begin ") + name); }
    void OnThreadLine(const Control::ThreadLine &line) override { Note("line " + line.text.utf8_string()); }
    void OnThreadEnd(DWORD, bool killed) override { Note(killed ? "killed" : "end"); }

    std::vector<std::string> Take() {
        const std::lock_guard lock(m_lock);
        return std::exchange(m_notes, {});
    }

private:
    void Note(std::string text) {
        const std::lock_guard lock(m_lock);
        m_notes.push_back(std::move(text));
    }

    std::mutex m_lock;
    std::vector<std::string> m_notes;
};

/// Threads of this program may run for ever, so it is never destroyed.
NotingListener &TheListener() {
    static NotingListener &listener = *new NotingListener;
    return listener;
}

class TextTarget : public wxLog {
public:
    std::vector<std::string> texts;

protected:
    void DoLogRecord(wxLogLevel, const wxString &message, const wxLogRecordInfo &) override {
        texts.push_back(message.utf8_string());
    }
};

class LoggingThread : public CRunnable {
public:
    explicit LoggingThread(std::function<void()> body) : CRunnable(false, -1, false), m_body(std::move(body)) {}
    const char *Name() const override { return "logging"; }

protected:
    void Run() override { m_body(); }

private:
    std::function<void()> m_body;
};

class ThreadLog : public testing::Test {
protected:
    void SetUp() override {
        m_original = wxLog::SetActiveTarget(&target);
        Control::SetThreadListener(&TheListener());
    }
    void TearDown() override {
        Control::SetThreadListener(nullptr);
        wxLog::SetActiveTarget(m_original);
        (void)TheListener().Take();
    }

    static void RunThread(std::function<void()> body) {
        LoggingThread thread(std::move(body));
        ASSERT_TRUE(thread.start(50, true, 0));
        (void)thread.Wait();
    }

    TextTarget target;

private:
    wxLog *m_original = nullptr;
};

TEST_F(ThreadLog, ALineIsReportedAtOnceAndLoggedWhenTheMainThreadFlushes) {
    std::vector<std::string> told;
    RunThread([&told] {
        wxLogMessage("here");
        told = TheListener().Take();
    });
    EXPECT_EQ(told, (std::vector<std::string>{"begin logging", "line here"}));
    EXPECT_EQ(TheListener().Take(), std::vector<std::string>{"end"});
    EXPECT_TRUE(target.texts.empty());
    wxLog::FlushActive();
    EXPECT_EQ(target.texts, std::vector<std::string>{"here"});
}

TEST_F(ThreadLog, AnErrorOfTheSystemIsCompletedOnce) {
    RunThread([] { wxLogSysError(5L, "Opening"); });
    wxLog::FlushActive();
    ASSERT_EQ(target.texts.size(), 1U);
    EXPECT_EQ(target.texts[0].find("(error 5: "), target.texts[0].rfind("(error 5: ")) << target.texts[0];
    EXPECT_EQ(TheListener().Take().at(1), "line " + target.texts[0]);
}

TEST_F(ThreadLog, LinesOfAThreadsOwnTargetAreReportedToo) {
    wxString text;
    RunThread([&text] {
        CLogGrabber grabber(text, false, false);
        wxLog *const before = wxLog::SetThreadActiveTarget(&grabber);
        wxLogMessage("mine");
        (void)wxLog::SetThreadActiveTarget(before);
        wxLogMessage("everybody's");
    });
    wxLog::FlushActive();
    EXPECT_EQ(text, "mine\n");
    EXPECT_EQ(target.texts, std::vector<std::string>{"everybody's"});
    EXPECT_EQ(TheListener().Take(),
              (std::vector<std::string>{"begin logging", "line mine", "line everybody's", "end"}));
}

TEST_F(ThreadLog, AKillIsReportedAndTheThreadsLinesAreKept) {
    static std::atomic<bool> hasLogged;
    hasLogged = false;
    LoggingThread thread([] {
        wxLogMessage("about to hang");
        hasLogged = true;  // and holds no lock of the log
        Sleep(INFINITE);
    });
    ASSERT_TRUE(thread.start(50, true, 0));
    for (int i = 0; i < 2000 && !hasLogged; ++i)
        Sleep(5);
    ASSERT_TRUE(hasLogged);
    EXPECT_EQ(TheListener().Take(), (std::vector<std::string>{"begin logging", "line about to hang"}));
    ASSERT_EQ(thread.Kill(), wxTHREAD_NO_ERROR);
    EXPECT_EQ(TheListener().Take(), std::vector<std::string>{"killed"});
    wxLog::FlushActive();
    EXPECT_EQ(target.texts, std::vector<std::string>{"about to hang"});
}

TEST_F(ThreadLog, NothingIsReportedWithoutAListener) {
    Control::SetThreadListener(nullptr);
    RunThread([] { wxLogMessage("here"); });
    EXPECT_TRUE(TheListener().Take().empty());
    wxLog::FlushActive();
    EXPECT_EQ(target.texts, std::vector<std::string>{"here"});
}

}  // namespace
