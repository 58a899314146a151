// Calls of the driver library that fail, one at a time: what is left in the package, and what is reported to the agent.
#include "CodePage.h"
#include "DiagnosticsFixture.h"

#include "Diagnostics/ShowErrors.h"

namespace {

using Lines = std::vector<std::string>;

class DriverFailure : public DiagnosticsFixture {
protected:
    /// The message of the one event after vti_get_stats has failed with this error text.
    std::string MessageFor(const std::string &error) {
        driver().faults["vti_get_stats"] = {-5, error};
        (void)Run();
        const Lines formats = TakeEventFormats();
        EXPECT_EQ(formats.size(), 1u);
        return formats.empty() ? "" : formats[0];
    }
    /// The traced lines since the last call that report a file as failed.
    static Lines TakeFailedFiles() {
        Lines failed;
        for (const std::string &message : TakeTracedMessages())
            if (message.ends_with("diagnostics failed"))
                failed.push_back(message);
        return failed;
    }
};

/// An operation, how often it is called, the file missing after its failure, and the label in the report.
struct Operation {
    const char *name;
    unsigned times;
    const char *lostFile;  ///< "" for none.
    const char *label;     ///< "" if nothing is reported.
};
constexpr Operation kOperations[] = {
    {"vti_get_stats", 1, kStats, "GET_STATS"},
    {"vti_get_varv", 174, kVariables, "GET_VARIABLE"},
    {"vti_get_blacklist", 2, kBlacklist, "BLACKLIST_ADD"},
    {"vti_get_var", 1, "", ""},
    {"vti_set_var", 1, "", ""},
};

Lines AllFilesBut(const std::string &lost) {
    Lines names{kStats, kVariables, kConnTrack, kBlacklist, kProfile};
    std::erase(names, lost);
    return names;
}

TEST_F(DriverFailure, AffectsOnlyItsOwnFileAndIsReported) {
    for (const Operation &operation : kOperations)
        for (unsigned place = 0; place < operation.times; ++place) {
            SCOPED_TRACE(std::string(operation.name) + ", call " + std::to_string(place + 1));
            driver().variables[62] = 1;
            driver().faults = {{operation.name, {-10018, "out of order", 1, static_cast<int>(place)}}};
            const Package package = Run();
            EXPECT_EQ(package.Names(), AllFilesBut(operation.lostFile));
            EXPECT_EQ(package.Content(kProfile).size(), 5000u);
            EXPECT_EQ(CallsOf(calls, std::string(operation.name) + "(").size(), place + 1u);
            const std::string label = operation.label;
            EXPECT_EQ(TakeEvents(), label.empty() ? Lines() : Lines{"1001 " + label + "|ffffd8de (out of order)"});
        }
}

TEST_F(DriverFailure, IsTracedAsThatOfItsFile) {
    const struct {
        const char *name;
        int place;
        const char *trace;
    } failures[] = {
        {"vti_get_stats", 0, "AddDriverStatistics diagnostics failed"},
        {"vti_get_varv", 0, "AddDriverVariables diagnostics failed"},
        {"vti_get_varv", 173, "AddDriverVariables diagnostics failed"},
        {"vti_get_blacklist", 0, "AddDriverBlacklist diagnostics failed"},
        {"vti_get_blacklist", 1, "AddDriverBlacklist diagnostics failed"},
    };
    VtaCore::Control::EnableTrace("diagnostics", true);
    for (const auto &failure : failures) {
        SCOPED_TRACE(std::string(failure.name) + ", call " + std::to_string(failure.place + 1));
        driver().faults = {{failure.name, {-10018, "out of order", 1, failure.place}}};
        (void)Run();
        EXPECT_EQ(TakeFailedFiles(), Lines{failure.trace});
    }
}

TEST_F(DriverFailure, OfTheConnectionTotalsLeavesTheirFileOutAndIsReported) {
    VtaCore::Control::EnableTrace("diagnostics", true);
    driver().faults["vti_get_conntrack"] = {1, "no totals"};
    EXPECT_EQ(Run().Names(), AllFilesBut(kConnTrack));
    EXPECT_EQ(CallsOf(calls, "vti_get_conntrack").size(), 1u);
    EXPECT_EQ(TakeEvents(), Lines{"1001 GET_CONN_TRACK|00000001 (no totals)"});
    EXPECT_EQ(CallsOf(TakeTracedMessages(), "AddDriverConnTrack"),
              (Lines{"AddDriverConnTrack()", "AddDriverConnTrack diagnostics failed"}));
}

TEST_F(DriverFailure, OfBothTablesLeavesAFileWithTwoEmptyOnes) {
    driver().faults["vti_get_conntrack"] = {-1, "no tables", -1, 1};
    EXPECT_EQ(Run().Content(kConnTrack), "udp connections = 0\r\ntcp connections = 0\r\n");
    EXPECT_EQ(TakeEvents(),
              (Lines{"1001 GET_CONN_TRACK|ffffffff (no tables)", "1001 GET_CONN_TRACK|ffffffff (no tables)"}));
}

TEST_F(DriverFailure, OfTheProfilesSizeLeavesAnEmptyFileWithoutAReport) {
    driver().faults["vti_get_profile_stats"] = {-1, "no size"};
    const Package package = Run();
    EXPECT_EQ(package.Names(), AllFilesBut(""));
    EXPECT_EQ(package.Content(kProfile), "");
    EXPECT_EQ(CallsOf(calls, "vti_get_profile_stats").size(), 1u);
    EXPECT_EQ(TakeEvents(), Lines());
}

TEST_F(DriverFailure, OfTheProfilesSizeCountsThoughASizeHasArrived) {
    driver().faults["vti_get_profile_stats"] = {-1, "no size", -1, 0, true};
    EXPECT_EQ(Run().Content(kProfile), "");
    EXPECT_EQ(CallsOf(calls, "vti_get_profile_stats"), Lines{"vti_get_profile_stats(0)"});
    EXPECT_EQ(CallsOf(calls, "vti_get_var("), Lines());
}

TEST_F(DriverFailure, OfTheProfileLeavesAnEmptyFileAndIsReported) {
    driver().faults["vti_get_profile_stats"] = {-1, "no bytes", -1, 1};
    const Package package = Run();
    EXPECT_EQ(package.Names(), AllFilesBut(""));
    EXPECT_EQ(package.Content(kProfile), "");
    EXPECT_EQ(TakeEvents(), Lines{"1001 vti_get_profile_stats()|ffffffff (no bytes)"});
}

TEST_F(DriverFailure, OfVariable62LeavesItAtOneThoughItsValueHasArrived) {
    driver().variables[62] = 1;
    driver().faults["vti_get_var"] = {-1, "late", -1, 0, true};
    (void)Run();
    EXPECT_EQ(CallsOf(calls, "vti_get_var("), Lines{"vti_get_var(62)"});
    EXPECT_EQ(CallsOf(calls, "vti_set_var"), Lines());
    EXPECT_EQ(driver().variables[62], 1U);
}

TEST_F(DriverFailure, OfAVariableWithStatusMinus10017IsNotReported) {
    for (const unsigned place : {0u, 1u, 62u, 173u}) {
        driver().faults["vti_get_varv"] = {-10017, "silent", 1, static_cast<int>(place)};
        EXPECT_EQ(Run().Names(), AllFilesBut(kVariables));
        EXPECT_EQ(CallsOf(calls, "vti_get_varv").size(), place + 1u);
        EXPECT_EQ(CallsOf(calls, "vti_get_error"), Lines());
        EXPECT_EQ(TakeEvents(), Lines());
    }
}

TEST_F(DriverFailure, WithStatusMinus10017IsReportedForAnythingElse) {
    for (const char *operation : {"vti_get_stats", "vti_get_conntrack", "vti_get_blacklist"})
        driver().faults[operation] = {-10017, "told"};
    (void)Run();
    EXPECT_EQ(TakeEvents(), (Lines{"1001 GET_STATS|ffffd8df (told)", "1001 GET_CONN_TRACK|ffffd8df (told)",
                                   "1001 BLACKLIST_ADD|ffffd8df (told)"}));
}

TEST_F(DriverFailure, OfEverythingLeavesAnEmptyProfile) {
    for (const char *operation :
         {"vti_get_stats", "vti_get_varv", "vti_get_conntrack", "vti_get_blacklist", "vti_get_profile_stats"})
        driver().faults[operation] = {-1, "gone"};
    EXPECT_EQ(Run().Names(), Lines{kProfile});
    EXPECT_EQ(TakeEvents().size(), 4u);
}

TEST_F(DriverFailure, IsReportedWithAtMostEightyBytesOfItsText) {
    EXPECT_EQ(MessageFor(""), "GET_STATS|fffffffb ()");
    for (const std::size_t length : {79u, 80u, 81u, 5000u}) {
        const std::string error(length, 'x');
        EXPECT_EQ(MessageFor(error), "GET_STATS|fffffffb (" + error.substr(0, 80) + ")");
        EXPECT_EQ(CallsOf(calls, "vti_get_error"), Lines{"vti_get_error(80)"});
    }
}

TEST_F(DriverFailure, HasItsTextConvertedByTheLocale) {
    const CodePageText character = CharacterInCodePage();
    EXPECT_EQ(MessageFor("Ger" + character.narrow + "t"), "GET_STATS|fffffffb (Ger" + character.utf8 + "t)");
    if (GetACP() == 1252) {
        EXPECT_EQ(MessageFor("Ger\xE4t \xFF"), "GET_STATS|fffffffb (Ger\xC3\xA4t \xC3\xBF)");
    }
}

TEST_F(DriverFailure, KeepsATextInAnotherEncoding) {
    for (const CodePageText &text : TextsOutsideCodePage())
        EXPECT_EQ(MessageFor(text.narrow), "GET_STATS|fffffffb (" + text.utf8 + ")");
    const std::string message = MessageFor("Ger\xE4t \xFF\x81 broken");
    EXPECT_TRUE(message.starts_with("GET_STATS|fffffffb (Ger") && message.ends_with("broken)")) << message;
}

// The message is the event's format, without arguments, so what becomes of a directive in the driver's text is up to
// the event writer. This one replaces a missing argument by null or 0.
TEST_F(DriverFailure, HasPercentSignsInItsTextInterpretedAsDirectives) {
    driver().faults["vti_get_stats"] = {-5, "at 5%, %s of %d, 100%%"};
    (void)Run();
    const auto events = VtaCore::Control::TakeEvents();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].format.utf8_string(), "GET_STATS|fffffffb (at 5%, %s of %d, 100%%)");
    EXPECT_EQ(events[0].text.utf8_string(), "GET_STATS|fffffffb (at 5%, (null) of 0, 100%)");
}

TEST_F(DriverFailure, IsTracedWithTheUnformattedMessage) {
    VtaCore::Control::EnableTrace("diagnostics", true);
    driver().faults["vti_get_stats"] = {-5, "100% %s"};
    (void)Run();
    Lines shown;
    for (const TracedLine &line : TakeTracedLines())
        if (line.function == "Filter::Diagnostics::ShowErrors")
            shown.push_back(line.message);
    EXPECT_EQ(shown, Lines{"AgentWrite 1001 GET_STATS|fffffffb (100% %s)"});
}

TEST_F(DriverFailure, IsReportedWithTheFirst64CharactersOfALabel) {
    const std::wstring label = std::wstring(64, L'a') + L"b";
    EXPECT_FALSE(Filter::Diagnostics::ShowErrors(dom, handle, label.c_str(), 16));
    EXPECT_FALSE(Filter::Diagnostics::ShowErrors(dom, handle, L"%s", 16));
    EXPECT_TRUE(Filter::Diagnostics::ShowErrors(dom, handle, label.c_str(), 0));
    const Lines formats = TakeEventFormats();
    ASSERT_EQ(formats.size(), 2u);
    EXPECT_EQ(formats[0].substr(0, 64), std::string(64, 'a'));
    EXPECT_EQ(formats[0].substr(64), "|00000010 ()");
    EXPECT_EQ(formats[1], "%s|00000010 ()");
}

// ---- The package

TEST_F(DriverFailure, AClosedPackageAcceptsNoFileButEachOfTheFiveIsTried) {
    VtaCore::Control::EnableTrace("diagnostics", true);
    wxMemoryOutputStream memory;
    VtaCore::Control::ZipPackage zip(memory);
    ASSERT_TRUE(zip.Close());
    RunOn(zip);
    EXPECT_EQ(Package(memory).Names(), Lines());
    EXPECT_EQ(TakeFailedFiles(),
              (Lines{"AddDriverStatistics diagnostics failed", "AddDriverVariables diagnostics failed",
                     "AddDriverConnTrack diagnostics failed", "AddDriverBlacklist diagnostics failed",
                     "AddDriverRuleStats diagnostics failed"}));
    EXPECT_EQ(calls.back(), "vti_get_var(62)");
    EXPECT_EQ(TakeEvents(), Lines());
}

}  // namespace
