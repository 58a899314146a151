#include "HostLog.h"

#include <cstdio>

#include "Text.h"

namespace {

/// Null for levels that nobody has asked for.
const char *NameOf(wxLogLevel level) {
    switch (level) {
        case wxLOG_FatalError:
            return "fatal  ";
        case wxLOG_Error:
            return "error  ";
        case wxLOG_Warning:
            return "warning";
        case wxLOG_Message:
            return "log    ";
        default:
            return nullptr;
    }
}

}  // namespace

void HostLog::DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) {
    const std::string text = ToUtf8(message);
    const char *name = NameOf(level);
    if (m_print && name != nullptr) {
        (void)std::fprintf(stderr, "%s %s\n", name, text.c_str());
        (void)std::fflush(stderr);
    }
    if (m_history == nullptr)
        return;
    const double time = static_cast<double>(info.timestampMS) / 1000;  // a line of another thread comes later
    if (level <= wxLOG_Error)
        m_history->AddNote(HealthNote::Kind::Error, time, text);
    else if (const std::optional<HealthIteration> iteration = ParseHealthLine(text))
        m_history->AddIteration(BeginOf(*iteration, time), *iteration);
}
