// Where the log lines of the module and of wxWidgets go.
#pragma once

#include <deque>
#include <vector>

#include <wx/log.h>

#include "DriverRuns.h"
#include "HealthHistory.h"
#include "LogLine.h"

/// Prints errors, warnings and messages to the standard error output, as the host prints traces, keeps them for the
/// script, and keeps what the report is made of. Lines of other threads come when the log is flushed.
class HostLog : public wxLog {
public:
    /// @param print    also print.
    /// @param history  null to keep nothing for a report; else it outlives the log.
    /// @param runs     is told of the script's thread, and outlives the log.
    HostLog(bool print, HealthHistory *history, DriverRuns &runs);

    /// Whether verbose lines are printed and kept, too; at first they are not.
    void WantVerbose(bool wanted);
    /// Flushes the log. @return the lines that no earlier call has returned, in the order of their times; the latest
    ///         100,000 at most.
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
