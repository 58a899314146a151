// The data of the host's report: the module's log line, and which rows are drawn.
#include <gtest/gtest.h>

#include <algorithm>
#include <clocale>
#include <cmath>

#include "devkit/host/HealthHistory.h"
#include "devkit/host/ReportPage.h"

namespace {

constexpr char kLine[] =
    "SysHealth: rc=1 tval=  12345678.000250 delta_t=30.000 startSt=Act endSt=Act min_dur=900 act_dur=60 "
    "backoff=15 next_chk=14 port=443 rqpct=7.500(50.000) refusalpct=0.000(0.000) estab=1.250(400.000) "
    "scanmb=0.000(40.000) frepct=61.000(12.000) delta_t=30.000(45.000)";

HealthIteration Active(std::uint64_t wait, std::uint64_t next) {
    HealthIteration iteration;
    iteration.startsActive = iteration.endsActive = true;
    iteration.waitMinutes = wait;
    iteration.nextMinutes = next;
    return iteration;
}

HealthIteration Quiet(double queue) {
    HealthIteration iteration;
    iteration.interval = 30;
    iteration.metrics[0] = {queue, 50};
    return iteration;
}

std::vector<HealthRow> Rows(std::size_t count) {
    std::vector<HealthRow> rows;
    for (std::size_t i = 0; i < count; ++i)
        rows.push_back({static_cast<double>(i) * 30, Quiet(std::sin(static_cast<double>(i)))});
    return rows;
}

}  // namespace

TEST(HealthLine, IsReadCompletely) {
    const std::optional<HealthIteration> read = ParseHealthLine(kLine);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->action, 1);
    EXPECT_EQ(read->clock, 12'345'678U);
    EXPECT_NEAR(read->clockFraction, 0.00025, 1e-9);
    EXPECT_EQ(read->interval, 30);
    EXPECT_TRUE(read->startsActive && read->endsActive);
    EXPECT_EQ(read->waitMinutes, 15U);
    EXPECT_EQ(read->nextMinutes, 14U);
    EXPECT_EQ(read->metrics[0].value, 7.5);
    EXPECT_EQ(read->metrics[2].limit, 400);
    EXPECT_EQ(read->metrics[5].limit, 45);
}

TEST(HealthLine, OtherLinesAreIgnored) {
    for (const std::string line : {"", "SysHealth: ", "SysHealth: rc=1 startSt=Act", "vti_open failed rc= 3"})
        EXPECT_FALSE(ParseHealthLine(line)) << line;
    const std::string whole(kLine);
    EXPECT_FALSE(ParseHealthLine(whole.substr(0, whole.size() - 1)));
}

TEST(HealthLine, ALimitThatIsNotANumberStaysNaN) {
    std::string line(kLine);
    line.replace(line.find("(12.000)"), 8, "(1.#INF)");
    const std::optional<HealthIteration> read = ParseHealthLine(line);
    ASSERT_TRUE(read);
    EXPECT_TRUE(std::isnan(read->metrics[4].limit));
}

TEST(HealthLine, NumbersMayHaveADecimalComma) {
    std::string line(kLine);
    for (std::size_t at = line.find('.', line.find("delta_t")); at != std::string::npos; at = line.find('.', at))
        line[at] = ',';
    ASSERT_NE(line.find("rqpct=7,500(50,000)"), std::string::npos);
    const std::optional<HealthIteration> read = ParseHealthLine(line);
    ASSERT_TRUE(read);
    EXPECT_NEAR(read->clockFraction, 0.00025, 1e-9) << "the time has a point in every locale";
    EXPECT_EQ(read->interval, 30);
    EXPECT_EQ(read->metrics[0].value, 7.5);
    EXPECT_EQ(read->metrics[0].limit, 50);
    EXPECT_EQ(read->metrics[2].value, 1.25);
}

TEST(HealthLine, IsReadInAnyLocale) {
    ASSERT_NE(std::setlocale(LC_ALL, "German_Germany"), nullptr);
    const std::optional<HealthIteration> read = ParseHealthLine(kLine);
    (void)std::setlocale(LC_ALL, "C");
    ASSERT_TRUE(read);
    EXPECT_NEAR(read->clockFraction, 0.00025, 1e-9);
    EXPECT_EQ(read->metrics[2].value, 1.25);
}

TEST(HealthLine, TheTimeIsCompletedFromACloseClock) {
    constexpr double secondsFrom1601To1970 = 11'644'473'600.0;
    for (const double since1601 : {4294967295.0, 4294967296.0, 13'417'000'000.0}) {
        HealthIteration iteration;
        iteration.clock = static_cast<std::uint32_t>(static_cast<std::uint64_t>(since1601));
        iteration.clockFraction = 0.5;
        for (const double away : {-100.0, 0.0, 100.0})
            EXPECT_NEAR(BeginOf(iteration, since1601 - secondsFrom1601To1970 + away),
                        since1601 + 0.5 - secondsFrom1601To1970, 1e-3);
    }
}

TEST(HealthStep, IsDerivedFromTheIterationBefore) {
    HealthIteration opens = Quiet(60);
    opens.endsActive = true;
    HealthIteration recovers = Active(0, 0);
    recovers.endsActive = false;
    const HealthIteration waits = Active(30, 30);
    const HealthIteration last = Active(30, 1);
    EXPECT_EQ(ClassifyHealthStep(nullptr, Quiet(1)), HealthStep::Nothing);
    EXPECT_EQ(ClassifyHealthStep(nullptr, opens), HealthStep::FailOpen);
    EXPECT_EQ(ClassifyHealthStep(&opens, waits), HealthStep::Nothing) << "the wait begins";
    EXPECT_EQ(ClassifyHealthStep(&waits, last), HealthStep::Nothing);
    EXPECT_EQ(ClassifyHealthStep(&last, Active(60, 60)), HealthStep::CheckFailed);
    EXPECT_EQ(ClassifyHealthStep(&last, Active(30, 30)), HealthStep::CheckFailed) << "at the longest wait";
    EXPECT_EQ(ClassifyHealthStep(&last, recovers), HealthStep::Recovered);
    EXPECT_EQ(ClassifyHealthStep(&last, Active(0, 0)), HealthStep::CheckFailed) << "without a wait";
}

TEST(HealthHistory, RecordsWhereItResumes) {
    HealthHistory history;
    for (const double time : {0.0, 30.0, 60.0, 200.0, 230.0, 100.0})
        history.AddIteration(time, Quiet(1));
    std::vector<bool> resumes;
    for (const HealthRow &row : history.Rows())
        resumes.push_back(row.resumes);
    EXPECT_EQ(resumes, (std::vector<bool>{false, false, false, true, false, true}));
}

TEST(HealthHistory, ARepeatedErrorIsOneNote) {
    HealthHistory history;
    for (int i = 0; i < 5; ++i) {
        history.AddNote(HealthNote::Kind::Error, i, "first");
        history.AddNote(HealthNote::Kind::Error, i, "second");
        history.AddNote(HealthNote::Kind::Mark, i, "mark");
    }
    const std::vector<HealthNote> notes = history.Notes();
    ASSERT_EQ(notes.size(), 7U);
    EXPECT_EQ(notes[0].count, 5);
    EXPECT_EQ(notes[0].until, 4);
}

TEST(HealthHistory, KeepsAThousandNotesAndCountsTheRest) {
    HealthHistory history;
    for (int i = 0; i < 1003; ++i)
        history.AddNote(HealthNote::Kind::Mark, i, "mark");
    EXPECT_EQ(history.Notes().size(), 1000U);
    EXPECT_EQ(history.NotesLeftOut(), 3U);
}

TEST(HealthHistory, CountsErrorsThatAreRepeatedOrLeftOut) {
    HealthHistory history;
    for (int i = 0; i < 1000; ++i)
        history.AddNote(HealthNote::Kind::Mark, i, "mark");
    EXPECT_EQ(history.Errors(), 0U);
    for (int i = 0; i < 3; ++i)
        history.AddNote(HealthNote::Kind::Error, i, "error " + std::to_string(i));
    EXPECT_EQ(history.Errors(), 3U);
    HealthHistory repeated;
    for (int i = 0; i < 5; ++i)
        repeated.AddNote(HealthNote::Kind::Error, i, "the same");
    EXPECT_EQ(repeated.Errors(), 5U);
}

TEST(ThinOut, KeepsAFewRowsUnchanged) {
    EXPECT_EQ(ThinOut(Rows(1000), 1000).size(), 1000U);
    EXPECT_TRUE(ThinOut({}, 100).empty());
}

TEST(ThinOut, KeepsTheEndsTransitionsAndExtremes) {
    std::vector<HealthRow> rows = Rows(50'000);
    rows[20'000].step = HealthStep::FailOpen;
    rows[33'333].iteration.metrics[0].value = 900;
    const std::vector<HealthRow> thin = ThinOut(rows, 1000);
    EXPECT_LE(thin.size(), 1000U);
    EXPECT_GT(thin.size(), 100U);
    EXPECT_EQ(thin.front().time, 0);
    EXPECT_EQ(thin.back().time, rows.back().time);
    const auto has = [&thin](std::size_t index) {
        return std::any_of(thin.begin(), thin.end(),
                           [index](const HealthRow &row) { return row.time == static_cast<double>(index) * 30; });
    };
    EXPECT_TRUE(has(20'000) && has(19'999));
    EXPECT_TRUE(has(33'333));
}

TEST(ThinOut, KeepsTransitionsOfTheWholeRunIfThereAreTooMany) {
    std::vector<HealthRow> rows = Rows(50'000);
    for (std::size_t i = 20; i < rows.size(); i += 20)
        rows[i].step = i % 40 == 0 ? HealthStep::Recovered : HealthStep::FailOpen;
    const std::vector<HealthRow> thin = ThinOut(rows, 1000);
    EXPECT_LE(thin.size(), 1000U);
    std::vector<int> inTenth(10);
    double last = 0;
    for (const HealthRow &row : thin) {
        if (row.step == HealthStep::Nothing)
            continue;
        ++inTenth[static_cast<std::size_t>(row.time / 150'000)];
        last = row.time;
    }
    EXPECT_EQ(last, 49'980 * 30.0);
    EXPECT_GE(*std::min_element(inTenth.begin(), inTenth.end()), 20);
}

TEST(ThinOut, KeepsATransitionAmongChangingLimits) {
    std::vector<HealthRow> rows = Rows(50'000);
    for (std::size_t i = 0; i < rows.size(); ++i)
        rows[i].iteration.metrics[5].limit = i % 2 == 0 ? 45 : 36;
    rows[49'990].step = HealthStep::CheckFailed;
    const std::vector<HealthRow> thin = ThinOut(rows, 1000);
    EXPECT_LE(thin.size(), 1000U);
    EXPECT_EQ(std::count_if(thin.begin(), thin.end(),
                            [](const HealthRow &row) { return row.step == HealthStep::CheckFailed; }),
              1);
}

TEST(ThinOut, ALimitThatStaysNaNIsNoChange) {
    std::vector<HealthRow> rows = Rows(50'000);
    for (HealthRow &row : rows) {
        row.iteration.metrics[0].value = 1;
        row.iteration.metrics[5].limit = std::nan("");
    }
    EXPECT_LE(ThinOut(rows, 1000).size(), 200U) << "but the ends and two rows of each stretch";
}

TEST(HealthHistory, KeepsALongEventWithItsEndAndCutsOtherTexts) {
    HealthHistory history;
    const std::string log = "first " + std::string(5000, 'x') + " last";
    history.AddNote(HealthNote::Kind::Event, 1, log);
    history.AddNote(HealthNote::Kind::Mark, 2, log);
    history.AddNote(HealthNote::Kind::Event, 3, log + std::string(30'000, 'y') + " last");
    const std::vector<HealthNote> notes = history.Notes();
    EXPECT_EQ(notes.at(0).text, log);
    EXPECT_EQ(notes.at(1).text.size(), 303U);
    EXPECT_TRUE(notes.at(1).text.starts_with("first ") && notes.at(1).text.ends_with("..."));
    EXPECT_LT(notes.at(2).text.size(), 20'100U);
    EXPECT_TRUE(notes.at(2).text.starts_with("first ") && notes.at(2).text.ends_with("y last"));
}

TEST(HealthHistory, CutsTheMiddleOfEventsOnceManyWereLong) {
    HealthHistory history;
    const std::string grown = std::string(15'000, 'x') + "\xC3\xBC" + std::string(199, 'z');
    for (int i = 0; i < 100; ++i)
        history.AddNote(HealthNote::Kind::Event, i, grown);
    std::size_t bytes = 0;
    for (const HealthNote &note : history.Notes()) {
        bytes += note.text.size();
        EXPECT_TRUE(note.text.ends_with(std::string(199, 'z')));
    }
    EXPECT_LT(bytes, 500'000U);
    const std::string last = history.Notes().back().text;
    EXPECT_EQ(last, std::string(100, 'x') + " ... \xC3\xBC" + std::string(199, 'z')) << "no half character";
}

TEST(ReportPage, StaysBelowThreeMebibytes) {
    HealthHistory history;
    for (int i = 0; i < 30'000; ++i) {
        HealthIteration iteration = Quiet(0);
        for (HealthMetric &metric : iteration.metrics)
            metric = {1234.567 + i % 777, 1000.125 + i % 2};
        history.AddIteration(1.7e9 + i * 30.123, iteration);
    }
    for (int i = 0; i < 2000; ++i)
        history.AddNote(HealthNote::Kind::Mark, i, std::string(5000, '<'));
    std::string error;
    const std::optional<std::string> page = MakeReportPage(history, {}, {.name = "script.lua"}, error);
    ASSERT_TRUE(page) << error;
    EXPECT_LT(page->size(), 3U << 20U);
    EXPECT_GT(page->size(), 1U << 20U);
}

TEST(ReportPage, HasTheLatestHundredInstallationsAndNoEndForUnfinishedSteps) {
    std::vector<DriverRun> runs(101);
    for (std::size_t i = 0; i < runs.size(); ++i)
        runs[i].begin = 1.7e9 + static_cast<double>(i);
    runs.back().steps.push_back({.name = "<Step>", .begin = 1.7e9 + 100});
    std::string error;
    const std::optional<std::string> page = MakeReportPage(HealthHistory(), {runs}, {.name = "script.lua"}, error);
    ASSERT_TRUE(page) << error;
    EXPECT_EQ(page->find(R"("installation","begin":0,)"), std::string::npos);
    EXPECT_NE(page->find(R"("installation","begin":1,"end":null,)"), std::string::npos);
    EXPECT_NE(page->find(R"("name":"\u003cStep\u003e","depth":0,"limit":0,"begin":100,"end":null,)"),
              std::string::npos);
}

TEST(ReportPage, CountsAlsoTheErrorsAndTheFailedRunsThatItLeavesOut) {
    HealthHistory history;
    for (int i = 0; i < 1000; ++i)
        history.AddNote(HealthNote::Kind::Mark, i, "mark");
    for (int i = 0; i < 7; ++i)
        history.AddNote(HealthNote::Kind::Error, i, "error " + std::to_string(i));
    ReportedRuns runs{.kept = std::vector<DriverRun>(102), .forgotten = {.installations = 5, .failed = 4, .killed = 3}};
    for (DriverRun &run : runs.kept) {
        run.kind = DriverRun::Kind::Removal;
        run.end = 1;
        run.result = true;
    }
    runs.kept.front().result = false;  // beyond the hundred that the page shows
    std::string error;
    const std::optional<std::string> page = MakeReportPage(history, runs, {.name = "script.lua"}, error);
    ASSERT_TRUE(page) << error;
    EXPECT_NE(page->find("\"errors\":7,"), std::string::npos);
    EXPECT_NE(page->find(R"("driverTotals":{"installations":5,"removals":102,"failed":5,"killed":3})"),
              std::string::npos);
}
