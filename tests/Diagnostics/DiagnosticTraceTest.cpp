// The trace of a run, line by line.
#include <map>
#include <ostream>
#include <string>
#include <utility>

#include "DiagnosticsFixture.h"

bool operator==(const TracedLine &one, const TracedLine &other) {
    return one.component == other.component && one.function == other.function && one.message == other.message;
}

std::ostream &operator<<(std::ostream &out, const TracedLine &line) {
    return out << line.component << " " << line.function << ": " << line.message;
}

namespace {

using Trace = std::vector<TracedLine>;

class DiagnosticTrace : public DiagnosticsFixture {
protected:
    DiagnosticTrace() { VtaCore::Control::EnableTrace("*", true); }
};

TracedLine Line(const std::string &function, const std::string &message) {
    return {"diagnostics", "Filter::Diagnostics::" + function, message};
}

TEST_F(DiagnosticTrace, ReportsEachStepWithItsFunction) {
    (void)Run();
    EXPECT_EQ(TakeTracedLines(), (Trace{
                                     {"filter", "AddDriverDiagnostics", "AddDriverDiagnostics"},
                                     Line("AddDriverContent", "AddDriverContent()"),
                                     Line("AddDriverStatistics", "AddDriverStatistics()"),
                                     Line("AddDriverStatistics", "AddDriverStatistics() - about to get stats"),
                                     Line("getDriverStatistics", "getDriverStatistics()"),
                                     Line("IsDriverOpen", "IsDriverOpen 1"),
                                     Line("getDriverStatistics", "driver is opened calling vti_get_stats"),
                                     Line("AddDriverStatistics", "AddDriverStatistics() - got stats"),
                                     Line("AddDriverStatistics", "AddDriverStatistics() - dumped stats"),
                                     Line("AddDriverVariables", "AddDriverVariables()"),
                                     Line("IsDriverOpen", "IsDriverOpen 1"),
                                     Line("AddDriverConnTrack", "AddDriverConnTrack()"),
                                     Line("IsDriverOpen", "IsDriverOpen 1"),
                                     Line("getDriverConnTrack", "totConn.entry_ct was 5"),
                                     Line("getDriverConnTrack", "udpConn->entry_ct = 2"),
                                     Line("getDriverConnTrack", "tcpConn->entry_ct = 3"),
                                     Line("AddDriverBlacklist", "AddDriverBlacklist()"),
                                     Line("IsDriverOpen", "IsDriverOpen 1"),
                                     Line("AddDriverRuleStats", "AddDriverRuleStats()"),
                                     {"filter", "AddDriverDiagnostics", "AddDriverContent returned 1"},
                                 }));
}

TEST_F(DiagnosticTrace, NamesTheFileAndALineOfItsOwnForEachMessage) {
    const std::map<std::string, std::string> files{
        {"AddDriverDiagnostics", "AddDriverDiagnostics.cpp"},
        {"Filter::Diagnostics::AddDriverContent", "DriverContent.cpp"},
        {"Filter::Diagnostics::AddDriverStatistics", "StatisticsFile.cpp"},
        {"Filter::Diagnostics::getDriverStatistics", "StatisticsFile.cpp"},
        {"Filter::Diagnostics::IsDriverOpen", "IsDriverOpen.cpp"},
        {"Filter::Diagnostics::AddDriverVariables", "VariablesFile.cpp"},
        {"Filter::Diagnostics::AddDriverConnTrack", "ConnTrackFile.cpp"},
        {"Filter::Diagnostics::getDriverConnTrack", "ConnTrackFile.cpp"},
        {"Filter::Diagnostics::AddDriverBlacklist", "BlacklistFile.cpp"},
        {"Filter::Diagnostics::AddDriverRuleStats", "RuleStatsFile.cpp"},
    };
    (void)Run();
    std::map<std::pair<std::string, int>, std::string> messages;  // by place
    std::map<std::string, int> lines;
    for (const TracedLine &line : TakeTracedLines()) {
        const auto file = files.find(line.function);
        ASSERT_NE(file, files.end()) << line.function;
        EXPECT_EQ(line.file, file->second) << line.message;
        EXPECT_GT(line.line, 0) << line.message;
        EXPECT_EQ(messages.try_emplace({line.file, line.line}, line.message).first->second, line.message);
        EXPECT_EQ(lines.try_emplace(line.message, line.line).first->second, line.line) << line.message;
    }
}

TEST_F(DiagnosticTrace, ReportsADriverThatIsNotOpen) {
    driver().available = false;
    driver().faults["vti_driver_available"] = {-3, ""};
    (void)Run();
    EXPECT_EQ(TakeTracedLines(), (Trace{
                                     {"filter", "AddDriverDiagnostics", "AddDriverDiagnostics"},
                                     Line("AddDriverContent", "AddDriverContent()"),
                                     Line("AddDriverStatistics", "AddDriverStatistics()"),
                                     Line("AddDriverStatistics", "AddDriverStatistics() - about to get stats"),
                                     Line("getDriverStatistics", "getDriverStatistics()"),
                                     Line("IsDriverOpen", "IsDriverOpen -3"),
                                     Line("AddDriverContent", "AddDriverStatistics diagnostics failed"),
                                     Line("AddDriverVariables", "AddDriverVariables()"),
                                     Line("IsDriverOpen", "IsDriverOpen -3"),
                                     Line("AddDriverContent", "AddDriverVariables diagnostics failed"),
                                     Line("AddDriverConnTrack", "AddDriverConnTrack()"),
                                     Line("IsDriverOpen", "IsDriverOpen -3"),
                                     Line("AddDriverBlacklist", "AddDriverBlacklist()"),
                                     Line("IsDriverOpen", "IsDriverOpen -3"),
                                     Line("AddDriverContent", "AddDriverBlacklist diagnostics failed"),
                                     Line("AddDriverRuleStats", "AddDriverRuleStats()"),
                                     {"filter", "AddDriverDiagnostics", "AddDriverContent returned 1"},
                                 }));
}

TEST_F(DiagnosticTrace, ReportsTablesThatCannotBeRead) {
    driver().faults["vti_get_conntrack"] = {-9, "locked", -1, 1};
    (void)Run();
    Trace ofTables;
    for (const TracedLine &line : TakeTracedLines())
        if (line.function.ends_with("getDriverConnTrack") || line.function.ends_with("ShowErrors"))
            ofTables.push_back(line);
    const TracedLine report = Line("ShowErrors", "AgentWrite 1001 GET_CONN_TRACK|fffffff7 (locked)");
    EXPECT_EQ(ofTables,
              (Trace{Line("getDriverConnTrack", "totConn.entry_ct was 5"), report,
                     Line("getDriverConnTrack", "rc = -9"), Line("getDriverConnTrack", "udpConn->entry_ct = 0"), report,
                     Line("getDriverConnTrack", "rc = -9"), Line("getDriverConnTrack", "tcpConn->entry_ct = 0")}));
}

TEST_F(DiagnosticTrace, ChecksTwiceWhetherTheDriverIsOpenWhenTracing) {
    (void)Run();
    EXPECT_EQ(CallsOf(calls, "vti_driver_available").size(), 8u);
    VtaCore::Control::EnableTrace("*", false);
    (void)Run();
    EXPECT_EQ(CallsOf(calls, "vti_driver_available").size(), 4u);
    EXPECT_EQ(TakeTracedMessages().back(), "AddDriverContent returned 1");
    (void)Run();
    EXPECT_EQ(TakeTracedMessages(), std::vector<std::string>());
}

}  // namespace
