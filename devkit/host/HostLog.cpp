#include "HostLog.h"

#include <algorithm>
#include <iterator>
#include <list>

#include <wx/thread.h>

#include "Console.h"
#include "Text.h"

namespace {

constexpr std::size_t kMaxLines = 100'000;

}  // namespace

HostLog::HostLog(bool print, HealthHistory *history, DriverRuns &runs)
    : m_print(print), m_history(history), m_runs(runs) {
    WantVerbose(false);
}

void HostLog::WantVerbose(bool wanted) {
    m_wantsVerbose = wanted;
    // Otherwise the module does not report its health iterations.
    wxLog::SetVerbose(wanted || m_history != nullptr);
}

std::vector<LoggedLine> HostLog::TakeLines() {
    FlushActive();  // what other threads have logged
    // std::list::sort is stable, too, and clang rejects libstdc++'s std::stable_sort as deprecated.
    std::list<LoggedLine> lines(std::make_move_iterator(m_lines.begin()), std::make_move_iterator(m_lines.end()));
    m_lines.clear();
    lines.sort([](const LoggedLine &a, const LoggedLine &b) { return a.time < b.time; });
    return {std::make_move_iterator(lines.begin()), std::make_move_iterator(lines.end())};
}

void HostLog::DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) {
    const std::string text = ToUtf8(message);
    const double time = static_cast<double>(info.timestampMS) / 1000;  // lines of other threads come later
    const char *name = LevelName(level);
    if (name != nullptr && (level != wxLOG_Info || m_wantsVerbose)) {
        if (m_print) {
            std::string line = level == wxLOG_Message ? "log" : name;
            line.resize(std::max<std::size_t>(line.size(), 7), ' ');
            PrintLineOf(time, line + " " + text);
        }
        if (m_lines.size() == kMaxLines)
            m_lines.pop_front();
        m_lines.push_back({time, name, text});
    }
    if (info.threadId == wxThread::GetMainId())  // other threads tell of their lines at once
        m_runs.OnScriptLine({time, name, text});
    if (m_history == nullptr)
        return;
    if (level <= wxLOG_Error)
        m_history->AddNote(HealthNote::Kind::Error, time, text);
    else if (const std::optional<HealthIteration> iteration = ParseHealthLine(text))
        m_history->AddIteration(BeginOf(*iteration, time), *iteration);
}
