// The reporter of failed system calls, and the removal of the health-check files.
#include "WindowsDriverInstaller/cleanup/HealthCheckFiles.h"
#include "WindowsDriverInstaller/reports/AgentEventLog.h"

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "vta_core_control.h"

namespace {

namespace files = std::filesystem;

/// The system's text for an error, as the reporter should print it.
std::string Reason(DWORD error) {
    return wxString(wxSysErrorMsgStr(error)).utf8_string();
}

class FailureReport : public ModuleFixture {
protected:
    FailureReport() : ModuleFixture({.registry = false}) { (void)VtaCore::Control::TakeEvents(); }

    /// The one line and the one event of a report.
    void ExpectReport(const std::string &text, DWORD error, const std::string &code) {
        const std::vector<LogLine> lines = log.Take();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_EQ(lines[0].level, static_cast<wxLogLevel>(wxLOG_Error));
        EXPECT_EQ(lines[0].text, text + ": " + Reason(error) + " (" + code + ")");
        const std::vector<VtaCore::Control::Event> events = VtaCore::Control::TakeEvents();
        ASSERT_EQ(events.size(), 1U);
        EXPECT_EQ(events[0].number, 3005);
        EXPECT_EQ(events[0].logId, 0);
        EXPECT_EQ(events[0].text.utf8_string(), text + "|" + Reason(error) + " (" + code + ")");
    }
    files::path Put(const wchar_t *name) {
        const Simulator::InsideSimulator inside;
        files::path path = simulation().GetFolders().System32() / name;
        std::ofstream(path) << "health";
        EXPECT_TRUE(files::exists(path));
        return path;
    }
    static bool Exists(const files::path &path) {
        const Simulator::InsideSimulator inside;
        return files::exists(path);
    }

    LogCollector log;
    VtaCore::Control::Dom dom;
};

TEST_F(FailureReport, GoesToTheLogAndToTheAgent) {
    AgentEventLog_(dom, ERROR_ACCESS_DENIED, kSystemFailureEvent, L"Unable to open %s, try %d", L"qbimvta", 3);
    EXPECT_FALSE(Reason(ERROR_ACCESS_DENIED).empty());
    ExpectReport("Unable to open qbimvta, try 3", ERROR_ACCESS_DENIED, "0x5");
}

TEST_F(FailureReport, UsesTheLastErrorWithoutAnExplicitOne) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    AgentEventLog_(dom, 0, kSystemFailureEvent, L"Copy");
    ExpectReport("Copy", ERROR_FILE_NOT_FOUND, "0x2");
}

TEST_F(FailureReport, PrefersAnExplicitErrorToTheLastError) {
    SetLastError(ERROR_FILE_NOT_FOUND);
    AgentEventLog_(dom, 0x80070005, kSystemFailureEvent, L"Bind");
    ExpectReport("Bind", 0x80070005, "0x80070005");
}

TEST_F(FailureReport, KeepsPercentSignsInTheArguments) {
    AgentEventLog_(dom, ERROR_ACCESS_DENIED, kSystemFailureEvent, L"%s", L"100%s%n");
    ExpectReport("100%s%n", ERROR_ACCESS_DENIED, "0x5");
}

TEST_F(FailureReport, HealthCheckFilesThatExistAreRemovedAndOthersKept) {
    const files::path other = Put(L"qbimvta.dat");
    RemoveHealthCheckFiles();
    const files::path ndis = Put(L"qbimvtaHC.dat");
    RemoveHealthCheckFiles();
    EXPECT_FALSE(Exists(ndis));
    const files::path callout = Put(L"qbimwfpHC.dat");
    RemoveHealthCheckFiles();
    EXPECT_FALSE(Exists(callout));
    (void)Put(L"qbimvtaHC.dat");
    (void)Put(L"qbimwfpHC.dat");
    RemoveHealthCheckFiles();
    EXPECT_FALSE(Exists(ndis));
    EXPECT_FALSE(Exists(callout));
    EXPECT_TRUE(Exists(other));
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailureReport, AHealthCheckFileThatCannotBeRemovedIsLoggedAsAnErrorAndTheOthersAreRemoved) {
    const files::path ndis = Put(L"qbimvtaHC.dat");
    const files::path callout = Put(L"qbimwfpHC.dat");
    const HANDLE inUse = CreateFileW(ndis.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(inUse, INVALID_HANDLE_VALUE);
    RemoveHealthCheckFiles();
    (void)CloseHandle(inUse);
    const auto lines = log.Take();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].level, wxLOG_Error);
    EXPECT_NE(lines[0].text.find("qbimvtaHC.dat"), std::string::npos) << lines[0].text;
    EXPECT_TRUE(Exists(ndis));
    EXPECT_FALSE(Exists(callout));
}

TEST_F(FailureReport, HealthCheckFilesAreKeptWhenTheSystemFolderIsUnknown) {
    const files::path ndis = Put(L"qbimvtaHC.dat");
    const auto plan = simulation().GetFaults().FailEvery("GetSystemDirectoryW", ERROR_ACCESS_DENIED);
    RemoveHealthCheckFiles();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Exists(ndis));
    EXPECT_TRUE(log.Take().empty());
}

}  // namespace
