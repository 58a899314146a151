#include "ReportPage.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string_view>

#include "Resource.h"

namespace {

/// More would make the page large and show no more.
constexpr std::size_t kMaxRows = 12'000;
constexpr std::size_t kMaxDriverRuns = 100;

/// Puts the text in place of the mark, which stands in the page once.
void Insert(std::string &page, std::string_view mark, std::string_view text) {
    const std::size_t position = page.find(mark);
    if (position != std::string::npos)
        page.replace(position, mark.size(), text);
}

// The run as JSON that may stand in a script element.

/// Texts are UTF-8. No character of it has a meaning in HTML.
std::string Quoted(std::string_view text) {
    constexpr std::string_view unsafe = "\"\\<>&'\x7F";
    std::string quoted = "\"";
    for (const char character : text) {
        if (static_cast<unsigned char>(character) >= 0x20 && unsafe.find(character) == std::string_view::npos) {
            quoted += character;
            continue;
        }
        constexpr std::string_view digits = "0123456789abcdef";
        const auto code = static_cast<unsigned char>(character);
        quoted += "\\u00";
        quoted += digits[code >> 4U];
        quoted += digits[code & 0xFU];
    }
    return quoted + "\"";
}

/// With at most three decimals; null for what is no finite number.
std::string Number(double value) {
    if (!std::isfinite(value))
        return "null";
    constexpr double exact = 1e12;  // three decimals of more are not told apart anyway
    if (std::fabs(value) < exact)
        value = std::round(value * 1000) / 1000;
    char text[32];
    const std::to_chars_result end = std::to_chars(std::begin(text), std::end(text), value);
    return {text, end.ptr};
}

/// "name":[...] with what `get` yields for each row.
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

std::string StepsAsJson(const std::vector<DriverStep> &steps, double start) {
    std::string json;
    for (const DriverStep &step : steps) {
        json += json.empty() ? "\n" : ",\n";
        json += "{\"name\":" + Quoted(step.name) + ",\"depth\":" + std::to_string(step.depth) +
                ",\"limit\":" + std::to_string(step.limit) + ",\"begin\":" + Number(step.begin - start) +
                ",\"end\":" + (step.end ? Number(*step.end - start) : "null") +
                ",\"killed\":" + (step.killed ? "true" : "false") + ",\"failed\":" + (step.failed ? "true" : "false") +
                "}";
    }
    return json;
}

std::string DriverRunAsJson(const DriverRun &run, double start) {
    const bool isInstallation = run.kind == DriverRun::Kind::Installation;
    return std::string(R"({"kind":")") + (isInstallation ? "installation" : "removal") + R"(","begin":)" +
           Number(run.begin - start) + R"(,"end":)" + (run.end ? Number(*run.end - start) : "null") +
           R"(,"succeeded":)" + (run.succeeded ? "true" : "false") + R"(,"rebootAsked":)" +
           (run.rebootAsked ? "true" : "false") + R"(,"failedStep":)" + Quoted(run.failedStep) + R"(,"steps":[)" +
           StepsAsJson(run.steps, start) + "]}";
}

/// The latest.
std::string DriverRunsAsJson(const std::vector<DriverRun> &runs, double start) {
    std::string json;
    for (std::size_t i = runs.size() - std::min(runs.size(), kMaxDriverRuns); i < runs.size(); ++i) {
        json += json.empty() ? "\n" : ",\n";
        json += DriverRunAsJson(runs[i], start);
    }
    return json;
}

/// Of the first iteration; where there is none, of the first installation or removal, else of the first note.
double StartOf(const std::vector<HealthRow> &rows, const std::vector<DriverRun> &runs,
               const std::vector<HealthNote> &notes) {
    if (!rows.empty())
        return rows.front().time;
    if (!runs.empty())
        return runs.front().begin;
    return notes.empty() ? 0 : notes.front().time;
}

std::string RunAsJson(const HealthHistory &history, const std::vector<DriverRun> &runs, const std::string &script) {
    const std::vector<HealthRow> all = history.Rows();
    const std::vector<HealthRow> rows = ThinOut(all, kMaxRows);
    const std::vector<HealthNote> notes = history.Notes();
    const double start = StartOf(rows, runs, notes);
    return "{\"script\":" + Quoted(script) + ",\n\"start\":" + Number(start) +
           ",\n\"iterations\":" + std::to_string(all.size()) + ",\n" + RowsAsJson(rows, start) + ",\n\"metrics\":[" +
           MetricsAsJson(rows) + "],\n\"driverRuns\":[" + DriverRunsAsJson(runs, start) +
           "],\n\"notesLeftOut\":" + std::to_string(history.NotesLeftOut()) + ",\n\"notes\":[" +
           NotesAsJson(notes, start) + "]}";
}

}  // namespace

std::optional<std::string> MakeReportPage(const HealthHistory &history, const std::vector<DriverRun> &runs,
                                          const std::string &script, std::string &error) {
    std::string lacking;
    std::string page(Resource(L"REPORT_PAGE", lacking));
    Insert(page, "/*STYLE*/", Resource(L"REPORT_STYLE", lacking));
    for (const wchar_t *part : {L"REPORT_SCALES", L"REPORT_CHARTS", L"REPORT_STEPS", L"REPORT_SCRIPT"})
        Insert(page, "/*SCRIPT*/", std::string(Resource(part, lacking)) + "/*SCRIPT*/");
    if (!lacking.empty()) {
        error = lacking;
        return std::nullopt;
    }
    Insert(page, "/*SCRIPT*/", "");
    Insert(page, "/*RUN*/", RunAsJson(history, runs, script));
    return page;
}
