#include "ReportPage.h"

#include <string_view>

#include "Resource.h"

#include "ReportDrivers.h"
#include "ReportJson.h"

namespace {

/// More rows would make the page large without showing more.
constexpr std::size_t kMaxRows = 12'000;

/// Replaces the mark, which occurs in the page once, by the text.
void Insert(std::string &page, std::string_view mark, std::string_view text) {
    const std::size_t position = page.find(mark);
    if (position != std::string::npos)
        page.replace(position, mark.size(), text);
}

// The run as JSON that is safe in a script element.

/// "name":[...] with the result of `get` for each row.
template <typename Get>
std::string Column(const char *name, const std::vector<HealthRow> &rows, const Get &get) {
    std::string column = "\"" + std::string(name) + "\":[";
    for (const HealthRow &row : rows) {
        column += Number(static_cast<double>(get(row)));
        column += ',';
    }
    if (!rows.empty())
        column.pop_back();
    return column + "]";
}

std::string RowsAsJson(const std::vector<HealthRow> &rows, double start) {
    return Column("time", rows, [start](const HealthRow &row) { return row.time - start; }) + ",\n" +
           Column("action", rows, [](const HealthRow &row) { return row.iteration.action; }) + ",\n" +
           Column("active", rows, [](const HealthRow &row) { return row.iteration.endsActive ? 1 : 0; }) + ",\n" +
           Column("step", rows, [](const HealthRow &row) { return static_cast<int>(row.step); }) + ",\n" +
           Column("resumes", rows, [](const HealthRow &row) { return row.resumes ? 1 : 0; }) + ",\n" +
           Column("wait", rows, [](const HealthRow &row) { return row.iteration.waitMinutes; }) + ",\n" +
           Column("next", rows, [](const HealthRow &row) { return row.iteration.nextMinutes; });
}

std::string MetricsAsJson(const std::vector<HealthRow> &rows) {
    std::string json;
    for (std::size_t i = 0; i < kHealthMetricNames.size(); ++i) {
        json += i == 0 ? "\n" : ",\n";
        json += "{\"name\":" + Quoted(kHealthMetricNames[i]) + ",\n" +
                Column("value", rows, [i](const HealthRow &row) { return row.iteration.metrics[i].value; }) + ",\n" +
                Column("limit", rows, [i](const HealthRow &row) { return row.iteration.metrics[i].limit; }) + "}";
    }
    return json;
}

const char *KindName(HealthNote::Kind kind) {
    switch (kind) {
        case HealthNote::Kind::Restart:
            return "restart";
        case HealthNote::Kind::Event:
            return "event";
        case HealthNote::Kind::Notification:
            return "notification";
        case HealthNote::Kind::Error:
            return "error";
        case HealthNote::Kind::Mark:
            break;
    }
    return "mark";
}

std::string NotesAsJson(const std::vector<HealthNote> &notes, double start) {
    std::string json;
    for (const HealthNote &note : notes) {
        json += json.empty() ? "\n" : ",\n";
        json += R"({"kind":")" + std::string(KindName(note.kind)) + R"(","time":)" + Number(note.time - start) +
                R"(,"until":)" + Number(note.until - start) + R"(,"count":)" + std::to_string(note.count) +
                R"(,"text":)" + Quoted(note.text) + "}";
    }
    return json;
}

/// Of all runs, also those that the page does not show.
std::string TotalsAsJson(const ReportedRuns &runs) {
    DriverTotals totals = runs.forgotten;
    for (const DriverRun &run : runs.kept)
        totals.Count(run);
    return "{\"installations\":" + std::to_string(totals.installations) +
           ",\"removals\":" + std::to_string(totals.removals) + ",\"failed\":" + std::to_string(totals.failed) +
           ",\"killed\":" + std::to_string(totals.killed) + "}";
}

/// Of the first iteration; without one, of the first installation or removal, or else of the first note.
double StartOf(const std::vector<HealthRow> &rows, const std::vector<DriverRun> &runs,
               const std::vector<HealthNote> &notes) {
    if (!rows.empty())
        return rows.front().time;
    if (!runs.empty())
        return runs.front().begin;
    return notes.empty() ? 0 : notes.front().time;
}

std::string RunAsJson(const HealthHistory &history, const ReportedRuns &runs, const ReportedScript &script) {
    const std::vector<HealthRow> all = history.Rows();
    const std::vector<HealthRow> rows = ThinOut(all, kMaxRows);
    const std::vector<HealthNote> notes = history.Notes();
    const double start = StartOf(rows, runs.kept, notes);
    return "{\"script\":" + Quoted(script.name) + ",\n\"error\":" + Quoted(script.error) +
           ",\n\"status\":" + std::to_string(script.status) + ",\n\"start\":" + Number(start) +
           ",\n\"iterations\":" + std::to_string(all.size()) + ",\n" + RowsAsJson(rows, start) + ",\n\"metrics\":[" +
           MetricsAsJson(rows) + "],\n\"driverRuns\":[" + DriverRunsAsJson(runs.kept, start) +
           "],\n\"driverTotals\":" + TotalsAsJson(runs) + ",\n\"errors\":" + std::to_string(history.Errors()) +
           ",\n\"notesLeftOut\":" + std::to_string(history.NotesLeftOut()) + ",\n\"notes\":[" +
           NotesAsJson(notes, start) + "]}";
}

}  // namespace

std::optional<std::string> MakeReportPage(const HealthHistory &history, const ReportedRuns &runs,
                                          const ReportedScript &script, std::string &error) {
    std::string lacking;
    std::string page(Resource(L"REPORT_PAGE", lacking));
    Insert(page, "/*STYLE*/", Resource(L"REPORT_STYLE", lacking));
    for (const wchar_t *part : {L"REPORT_SCALES", L"REPORT_CHARTS", L"REPORT_TEXTS", L"REPORT_STEPS", L"REPORT_SCRIPT"})
        Insert(page, "/*SCRIPT*/", std::string(Resource(part, lacking)) + "/*SCRIPT*/");
    if (!lacking.empty()) {
        error = lacking;
        return std::nullopt;
    }
    Insert(page, "/*SCRIPT*/", "");
    Insert(page, "/*RUN*/", RunAsJson(history, runs, script));
    return page;
}
