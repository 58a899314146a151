// The log of a driver thread, as text.
#pragma once

#include <memory>

#include <wx/log.h>
#include <wx/string.h>
#include <wx/thread.h>

#include "EnterWithin.h"
#include "vta_core.h"

/// Collects a worker's log. The text may be read while the worker goes on logging.
class GuardedGrabber : public VtaCore::CLogGrabber {
public:
    GuardedGrabber(wxString &text, wxCriticalSection &toLock)
        : CLogGrabber(text, /*passOn=*/false, /*withVerbose=*/true), lock(toLock) {}

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override {
        const wxCriticalSectionLocker locker(lock);
        CLogGrabber::DoLogRecord(level, message, info);
    }

private:
    wxCriticalSection &lock;
};

/// The log of a driver thread, as text. A thread that is left running keeps it.
class GrabbedLog {
public:
    [[nodiscard]] wxLog *Target() const { return grabber.get(); }
    /// For a thread that may still log. Empty if it hangs while it logs a line.
    [[nodiscard]] wxString TextSoFar() {
        constexpr int patienceMs = 10'000;
        if (!EnterWithin(lock, patienceMs))
            return {};
        const LeaveAtEnd entered{lock};
        return text.Clone();
    }
    /// For a thread that has ended. Ends the grabber, which may still hold back some text.
    [[nodiscard]] wxString WholeText() {
        grabber.reset();
        return text;
    }

private:
    wxCriticalSection lock;
    wxString text;
    std::unique_ptr<GuardedGrabber> grabber = std::make_unique<GuardedGrabber>(text, lock);
};
