// The log target that collects records into a text.
#include <atomic>
#include <mutex>

#include "LiveObject.h"
#include "ThreadLog.h"
#include "vta_core_control.h"

namespace VtaCore {
namespace {

std::atomic<bool> holdsBack{false};

}  // namespace

struct CLogGrabber::Impl {
    LiveObject live;
    wxString &text;
    wxLog *next;  ///< Null: records are not passed on.
    bool withVerbose;
    std::mutex mutex;
    wxString heldBack;
};

CLogGrabber::CLogGrabber(wxString &text, bool passOn, bool withVerbose)
    : m_impl(new Impl{{}, text, passOn ? wxLog::GetActiveTarget() : nullptr, withVerbose, {}, {}}) {}

CLogGrabber::~CLogGrabber() {
    m_impl->text << m_impl->heldBack;
    delete m_impl;
}

void CLogGrabber::DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) {
    if (level != wxLOG_Info || m_impl->withVerbose) {
        const std::lock_guard lock(m_impl->mutex);
        (holdsBack ? m_impl->heldBack : m_impl->text) << message << '\n';
    }
    if (m_impl->next == nullptr)
        ThreadLog::TellLine(level, message, info);
    else
        m_impl->next->LogRecord(level, message, info);
}

void Control::SetGrabbersHoldBack(bool holdBack) {
    holdsBack = holdBack;
}

}  // namespace VtaCore
