// The agent's central object: settings and their file, paths, events, the agent's exit.
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "Event.h"
#include "FunctionSet.h"
#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"
#include "vta_core_control.h"

namespace {

namespace fs = std::filesystem;
using namespace VtaCore;

class DomSettings : public testing::Test {
protected:
    void SetUp() override {
        fs::remove_all(m_folder);
        fs::create_directories(m_folder);
    }
    void TearDown() override { fs::remove_all(m_folder); }

    wxString Path() const { return m_store.wstring(); }

    static std::string Content(const fs::path &file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    void Write(const std::string &content) const { std::ofstream(m_store, std::ios::binary) << content; }

    std::ptrdiff_t FileCount() const {
        return std::distance(fs::directory_iterator(m_folder), fs::directory_iterator());
    }

    fs::path m_folder = fs::temp_directory_path() / (L"fc-dom-" + std::to_wstring(GetCurrentProcessId()));
    fs::path m_store = m_folder / L"Einstellungen-\u00FC.json";
};

TEST_F(DomSettings, AMissingFlagDoesNotChangeTheVariable) {
    const Control::Dom dom;
    for (bool flag : {false, true}) {
        bool value = flag;
        EXPECT_FALSE(dom.Get("missing", value));
        EXPECT_EQ(value, flag);
    }
}

TEST_F(DomSettings, AFlagCanBeReadAsFlagAndAsText) {
    Control::Dom dom;
    dom.Set("on", true);
    dom.Set("off", false);
    bool on = false;
    bool off = true;
    EXPECT_TRUE(dom.Get("on", on));
    EXPECT_TRUE(dom.Get("off", off));
    EXPECT_TRUE(on);
    EXPECT_FALSE(off);
    EXPECT_EQ(dom.GetWxString("on"), "true");
    EXPECT_EQ(dom.SettingRetrieve("off"), "false");
}

TEST_F(DomSettings, ATextThatSpellsAFlagCanBeReadAsOne) {
    Control::Dom dom;
    const std::pair<const char *, bool> spellings[] = {{"true", true},   {"True", true},   {"1", true},
                                                       {"false", false}, {"FALSE", false}, {"0", false}};
    for (const auto &[text, expected] : spellings) {
        SCOPED_TRACE(text);
        dom.SettingStore("flag", text);
        bool flag = !expected;
        EXPECT_TRUE(dom.Get("flag", flag));
        EXPECT_EQ(flag, expected);
    }
}

TEST_F(DomSettings, AnyOtherTextIsNotAFlag) {
    Control::Dom dom;
    for (const char *text : {"", "yes", "2", "truth"}) {
        SCOPED_TRACE(text);
        dom.SettingStore("text", text);
        bool flag = true;
        EXPECT_FALSE(dom.Get("text", flag));
        EXPECT_TRUE(flag);
    }
}

TEST_F(DomSettings, AMissingTextIsEmpty) {
    const Control::Dom dom;
    EXPECT_EQ(dom.GetWxString("missing"), "");
    EXPECT_EQ(dom.SettingRetrieve("missing"), "");
}

TEST_F(DomSettings, ALaterValueReplacesAnEarlierOneOfEitherKind) {
    Control::Dom dom(Path());
    dom.SettingStore("key", "text");
    dom.Set("key", true);
    EXPECT_EQ(dom.SettingRetrieve("key"), "true");
    dom.SettingStore("key", "text again");
    EXPECT_EQ(Control::Dom(Path()).SettingRetrieve("key"), "text again");
}

TEST_F(DomSettings, ASecondObjectReadsWhatTheFirstStored) {
    {
        Control::Dom first(Path());
        first.Set("flag", true);
        first.SettingStore(L"Schl\u00FCssel", L"\u00E4\u65E5\u672C \U0001F600 \"quoted\" \\ \r\n\t");
    }
    const Control::Dom second(Path());
    bool flag = false;
    EXPECT_TRUE(second.Get("flag", flag));
    EXPECT_TRUE(flag);
    EXPECT_EQ(second.SettingRetrieve(L"Schl\u00FCssel"), L"\u00E4\u65E5\u672C \U0001F600 \"quoted\" \\ \r\n\t");
    EXPECT_EQ(FileCount(), 1) << "only the store itself stays";
}

TEST_F(DomSettings, EveryCodeUnitSurvivesTheFileEvenNulAndLoneSurrogates) {
    std::wstring units;
    for (unsigned unit = 0; unit <= 0xFFFF; ++unit)
        units += static_cast<wchar_t>(unit);
    units += L"\xDC00\xD800";
    const wxString text(units.data(), units.size());
    Control::Dom(Path()).SettingStore("all", text);
    EXPECT_TRUE(Control::Dom(Path()).SettingRetrieve("all") == text);
}

TEST_F(DomSettings, TheFileIsJsonWithBooleansAndStrings) {
    Control::Dom dom(Path());
    dom.Set("flag", true);
    dom.SettingStore("text", L"\u00FC");
    std::string content = Content(m_store);
    std::erase_if(content, [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; });
    EXPECT_EQ(content, "{\"flag\":true,\"text\":\"\xC3\xBC\"}");
}

TEST_F(DomSettings, KeysAreCaseSensitive) {
    Control::Dom dom;
    dom.SettingStore("key", "lower");
    dom.SettingStore("KEY", "upper");
    EXPECT_EQ(dom.SettingRetrieve("key"), "lower");
    EXPECT_EQ(dom.SettingRetrieve("KEY"), "upper");
}

TEST_F(DomSettings, ValuesOfOtherKindsInTheFileStay) {
    Write(R"({"number": 7, "list": [1,2]})");
    Control::Dom dom(Path());
    dom.Set("flag", true);
    const Control::Dom again(Path());
    EXPECT_EQ(again.SettingRetrieve("number"), "7");
    EXPECT_EQ(again.SettingRetrieve("list"), "[1,2]");
}

TEST_F(DomSettings, ABrokenFileIsKeptAsideAndTheStoreStartsEmpty) {
    const std::string broken[] = {"{\"flag\": tr", "[]", "", std::string("{}\0{}", 5)};
    int number = 0;
    for (const std::string &content : broken) {
        SCOPED_TRACE(content);
        Write(content);
        Control::Dom dom(Path());
        EXPECT_EQ(dom.SettingRetrieve("flag"), "");
        dom.Set("flag", true);
        EXPECT_EQ(Control::Dom(Path()).SettingRetrieve("flag"), "true");
        const std::wstring ending = ++number == 1 ? L".broken" : L"." + std::to_wstring(number) + L".broken";
        EXPECT_EQ(Content(m_store.wstring() + ending), content);
    }
}

TEST_F(DomSettings, AFileThatCannotBeReadOrMovedIsUnchanged) {
    Write("{\"key\": \"kept\"}");
    const HANDLE lock = CreateFileW(m_store.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(lock, INVALID_HANDLE_VALUE);
    Control::Dom dom(Path());
    CloseHandle(lock);
    dom.SettingStore("key", "new");
    EXPECT_EQ(dom.SettingRetrieve("key"), "new");
    EXPECT_EQ(Content(m_store), "{\"key\": \"kept\"}");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(DomSettings, AStoreThatCannotBeWrittenKeepsTheOldFileAndTheNewValue) {
    Control::Dom dom(Path());
    dom.SettingStore("key", "old");
    const HANDLE lock = CreateFileW(m_store.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(lock, INVALID_HANDLE_VALUE);
    dom.SettingStore("key", "new");
    EXPECT_EQ(dom.SettingRetrieve("key"), "new");
    EXPECT_EQ(FileCount(), 1) << "no temporary file stays";
    EXPECT_EQ(Control::Dom(Path()).SettingRetrieve("key"), "old");
    CloseHandle(lock);
}

TEST_F(DomSettings, AStoreReportsWhyItsFileLacksAChangeUntilItIsSaved) {
    Control::Dom dom(Path());
    dom.SettingStore("key", "old");
    EXPECT_EQ(Control::SettingsError(dom), 0u);
    const HANDLE lock = CreateFileW(m_store.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(lock, INVALID_HANDLE_VALUE);
    dom.SettingStore("key", "new");
    EXPECT_NE(Control::SettingsError(dom), 0u);
    CloseHandle(lock);
    dom.SettingStore("other", "value");
    EXPECT_EQ(Control::SettingsError(dom), 0u);
    EXPECT_EQ(Control::Dom(Path()).SettingRetrieve("key"), "new");
}

TEST_F(DomSettings, AFolderIsUnchangedAndReported) {
    fs::create_directories(m_store / "below");
    Control::Dom dom(Path());
    EXPECT_NE(Control::SettingsError(dom), 0u);
    dom.Set("flag", true);
    EXPECT_TRUE(fs::is_directory(m_store / "below"));
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(DomSettings, TwoStoresOnOneFileKeepEachOthersChanges) {
    Control::Dom first(Path());
    Control::Dom second(Path());
    first.SettingStore("a", "of the first");
    second.SettingStore("b", "of the second");
    first.SettingStore("c", "of the first");
    const Control::Dom again(Path());
    EXPECT_EQ(again.SettingRetrieve("a"), "of the first");
    EXPECT_EQ(again.SettingRetrieve("b"), "of the second");
    EXPECT_EQ(again.SettingRetrieve("c"), "of the first");
    EXPECT_EQ(first.SettingRetrieve("b"), "of the second");
}

TEST_F(DomSettings, TwoStoresOnOneFileKeepEachOthersChangesEvenAtTheSameTime) {
    constexpr int kRounds = 20;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t)
        threads.emplace_back([this, t] {
            Control::Dom dom(Path());
            for (int i = 0; i < kRounds; ++i)
                dom.SettingStore(wxString::Format("key%d-%d", t, i), "value");
            EXPECT_EQ(Control::SettingsError(dom), 0u);
        });
    for (std::thread &thread : threads)
        thread.join();
    const Control::Dom again(Path());
    for (int t = 0; t < 2; ++t)
        for (int i = 0; i < kRounds; ++i)
            EXPECT_EQ(again.SettingRetrieve(wxString::Format("key%d-%d", t, i)), "value") << t << " " << i;
}

TEST_F(DomSettings, WithoutAPathNothingIsWritten) {
    const fs::path before = fs::current_path();
    fs::current_path(m_folder);
    Control::Dom().Set("flag", true);
    fs::current_path(before);
    EXPECT_EQ(FileCount(), 0);
}

TEST_F(DomSettings, ThreadsCanStoreAndReadAtTheSameTime) {
    constexpr int kThreads = 8;
    constexpr int kRounds = 20;
    Control::Dom dom(Path());
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&dom, t] {
            const wxString own = wxString::Format("key%d", t);
            for (int i = 0; i < kRounds; ++i) {
                dom.SettingStore(own, wxString::Format("%d", i));
                dom.Set("shared", i % 2 == 0);
                bool flag = false;
                if (!dom.Get("shared", flag) || dom.SettingRetrieve(own) != wxString::Format("%d", i))
                    ADD_FAILURE() << "thread " << t << " lost a value in round " << i;
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    const Control::Dom again(Path());
    for (int t = 0; t < kThreads; ++t)
        EXPECT_EQ(again.SettingRetrieve(wxString::Format("key%d", t)), wxString::Format("%d", kRounds - 1));
}

TEST(DomPaths, AreBelowTheConfiguredFolder) {
    Control::Dom dom;
    Control::SetPluginFolder(dom, "C:\\agent");
    EXPECT_EQ(dom.GetPluginFileWx("filter", "driver.inf"), "C:\\agent\\filter\\driver.inf");
    Control::SetPluginFolder(dom, "C:\\");
    EXPECT_EQ(dom.GetPluginFileWx("filter", "driver.inf"), "C:\\filter\\driver.inf");
}

TEST(DomPaths, AreBesideTheProgramByDefault) {
    wchar_t program[MAX_PATH];
    ASSERT_GT(GetModuleFileNameW(nullptr, program, MAX_PATH), 0u);
    const fs::path expected = fs::path(program).parent_path() / "plugins" / "filter" / "driver.inf";
    EXPECT_EQ(Control::Dom().GetPluginFileWx("filter", "driver.inf"), expected.wstring());
}

TEST(DomExit, IsNotRequestedAtFirst) {
    const Control::Dom dom;
    bool interrupted = true;
    EXPECT_FALSE(dom.ShouldExit(0, &interrupted));
    EXPECT_FALSE(interrupted);
    EXPECT_FALSE(dom.ShouldExit(0, nullptr));
}

TEST(DomExit, IsRequestedUntilItIsCancelled) {
    Control::Dom dom;
    Control::SetShouldExit(dom, true);
    bool interrupted = false;
    EXPECT_TRUE(dom.ShouldExit(INFINITE, &interrupted));
    EXPECT_TRUE(interrupted);
    EXPECT_TRUE(dom.ShouldExit(0, nullptr)) << "also the second time";
    Control::SetShouldExit(dom, false);
    EXPECT_FALSE(dom.ShouldExit(0, nullptr));
}

TEST(DomExit, TheWaitLastsAsLongAsRequested) {
    const Control::Dom dom;
    const auto start = std::chrono::steady_clock::now();  // the ticks of a busy system may be late
    EXPECT_FALSE(dom.ShouldExit(200, nullptr));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(180));
}

TEST(DomExit, EndsARunningWait) {
    Control::Dom dom;
    const auto core = std::make_shared<Simulator::Core>();
    Simulator::FunctionSet functions(core);
    Simulator::Event begun;
    functions.Put<Simulator::System::WaitForSingleObject>([&](const auto &next, HANDLE handle, DWORD ms) {
        if (ms == INFINITE)
            begun.Set();
        return next(handle, ms);
    });
    ASSERT_EQ(functions.Attach(GetModuleHandleW(L"vta_core.dll"), {"WaitForSingleObject"}), 1U);
    bool wasAwaited = false;
    std::thread later([&] {
        wasAwaited = begun.Wait(kPatienceMs);
        Control::SetShouldExit(dom, true);
    });
    EXPECT_TRUE(dom.ShouldExit(INFINITE, nullptr));
    later.join();
    EXPECT_TRUE(wasAwaited) << "the exit was wanted before the wait began";
}

class DomEvents : public testing::Test {
protected:
    void SetUp() override { Control::TakeEvents(); }

    /// The text of an event that is sent with this format and no arguments.
    wxString TextOf(const wxString &format) {
        m_dom.AgentEventWrite(1, format);
        const std::vector<Control::Event> events = Control::TakeEvents();
        return events.size() == 1 ? events[0].text : wxString("no event");
    }

    Control::Dom m_dom;
};

TEST_F(DomEvents, AreFormattedWithWideTextsAndRecorded) {
    m_dom.DoAgentEventWrite(17, L"%s: %d of %u, %lld, %5.1f%%", L"\u00FC\u65E5", -3, 4u, 1LL << 40, 12.25);
    const std::vector<Control::Event> events = Control::TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].number, 17);
    EXPECT_EQ(events[0].logId, 0);
    EXPECT_EQ(events[0].format, "%s: %d of %u, %lld, %5.1f%%");
    EXPECT_EQ(events[0].text, L"\u00FC\u65E5: -3 of 4, 1099511627776,  12.2%");
}

TEST_F(DomEvents, IncludeTheNumberOfTheLogEntryIfLogged) {
    m_dom.DoAgentEventWriteAndLog(17, 4711, L"%s", L"text");
    const std::vector<Control::Event> events = Control::TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].number, 17);
    EXPECT_EQ(events[0].logId, 4711);
    EXPECT_EQ(events[0].text, "text");
}

TEST_F(DomEvents, CanBeLong) {
    const std::wstring longText(100'000, L'x');
    m_dom.DoAgentEventWrite(1, L"<%s>", longText.c_str());
    const std::vector<Control::Event> events = Control::TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_TRUE(events[0].text == L"<" + longText + L">");
}

TEST_F(DomEvents, WithoutArgumentsKeepTheirFormat) {
    m_dom.AgentEventWrite(5, wxString("at 50% of it: %s"));
    const std::vector<Control::Event> events = Control::TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].number, 5);
    EXPECT_EQ(events[0].format, "at 50% of it: %s");
}

TEST_F(DomEvents, WithoutArgumentsPrintDirectivesAsNothingNullOrZero) {
    EXPECT_EQ(TextOf("plain"), "plain");
    EXPECT_EQ(TextOf(""), "");
    EXPECT_EQ(TextOf("100%% of %%d"), "100% of %d");
    EXPECT_EQ(TextOf("<%s> <%ls> <%hs> <%S> <%-20.5s>"), "<(null)> <(null)> <(null)> <(null)> <(null)>");
    EXPECT_EQ(TextOf("<%d> <%05i> <%llu> <%I64x> <%*d> <%.*f> <%g> <%p>"), "<0> <0> <0> <0> <0> <0> <0> <0>");
    EXPECT_EQ(TextOf("<%c> <%n> <%lc>"), "<> <> <>");
    EXPECT_EQ(TextOf("<%1$s> <%2$d>"), "<(null)> <0>");
}

TEST_F(DomEvents, WithoutArgumentsKeepAPercentSignThatStartsNoDirective) {
    EXPECT_EQ(TextOf("%"), "%");
    EXPECT_EQ(TextOf("at the end %"), "at the end %");
    EXPECT_EQ(TextOf("cut %-08.3l"), "cut %-08.3l");
    EXPECT_EQ(TextOf("<%y> <%!>"), "<%y> <%!>");
    EXPECT_EQ(TextOf(L"%\u00FC"), L"%\u00FC");
}

TEST_F(DomEvents, AcceptEveryFormatOfFourCharactersWithoutArguments) {
    const std::string letters = "%sdnx*0.l$ ";
    const std::size_t count = letters.size();
    for (std::size_t i = 0; i < count * count * count; ++i) {
        const std::string format = {'%', letters[i % count], letters[i / count % count], letters[i / count / count]};
        const wxString text = TextOf(format);
        EXPECT_NE(text, "no event");
        EXPECT_LE(text.length(), 2 * std::string("(null)").size() + 1) << format;
    }
}

}  // namespace
