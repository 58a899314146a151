// Where the log lines of the module and of wxWidgets go.
#pragma once

#include <wx/log.h>

#include "HealthHistory.h"

/// Prints errors, warnings and messages to the standard error output, as the host prints traces, and keeps
/// what the report is made of.
class HostLog : public wxLog {
public:
    /// @param print    also print.
    /// @param history  null to keep nothing; else it outlives the log.
    HostLog(bool print, HealthHistory *history) : m_print(print), m_history(history) {}

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override;

private:
    bool m_print;
    HealthHistory *m_history;
};
