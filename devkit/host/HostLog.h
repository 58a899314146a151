// Where the log lines of the module and of wxWidgets go.
#pragma once

#include <deque>
#include <vector>

#include <wx/log.h>

#include "DriverRuns.h"
#include "HealthHistory.h"
#include "LogLine.h"

/// Prints errors, warnings and messages to standard error, like the host's traces, keeps them for the script, and keeps
/// the data for the report. Lines of other threads arrive when the log is flushed.
class HostLog : public wxLog {
public:
    /// @param print    also print.
    /// @param history  null without a report; else it outlives the log.
    /// @param runs     gets the lines of the script's thread, and outlives the log.
    HostLog(bool print, HealthHistory *history, DriverRuns &runs);

    /// Whether verbose lines are printed and kept, too; by default they are not.
    void WantVerbose(bool wanted);
    /// Flushes the log.
    /// @return the lines that no earlier call has returned, in chronological order; the latest 100,000 at most.
    std::vector<LoggedLine> TakeLines();

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override;

private:
    bool m_print;
    bool m_wantsVerbose = false;
    HealthHistory *m_history;
    DriverRuns &m_runs;
    std::deque<LoggedLine> m_lines;
};
