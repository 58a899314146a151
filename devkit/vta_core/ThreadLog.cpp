#include "ThreadLog.h"

#include <atomic>

namespace VtaCore {
namespace {

std::atomic<Control::ThreadListener *> g_threadListener{nullptr};

/// The record without values that are already part of the message, such as the text of a system call's error.
wxLogRecordInfo WithoutValues(const wxLogRecordInfo &info) {
    wxLogRecordInfo plain(info.filename, info.line, info.func, info.component);
    plain.timestampMS = info.timestampMS;
    plain.timestamp = info.timestamp;
    plain.threadId = info.threadId;
    return plain;
}

/// The target of a thread without its own: reports a record, and logs it normally.
class ThreadTarget : public wxLog {
protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override {
        ThreadLog::TellLine(level, message, info);
        wxLog *const self = SetThreadActiveTarget(nullptr);
        OnLog(level, message, WithoutValues(info));
        (void)SetThreadActiveTarget(self);
    }
};

/// Never destroyed, and without state: a thread may be killed within it.
wxLog *TheThreadTarget() {
    static wxLog *const target = new ThreadTarget;
    return target;
}

}  // namespace

void Control::SetThreadListener(ThreadListener *listener) {
    (void)TheThreadTarget();
    g_threadListener = listener;
}

void ThreadLog::Begin(const char *name) {
    Control::ThreadListener *const listener = g_threadListener;
    if (listener == nullptr)
        return;
    listener->OnThreadBegin(GetCurrentThreadId(), name);
    (void)wxLog::SetThreadActiveTarget(TheThreadTarget());
}

void ThreadLog::TellLine(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) {
    Control::ThreadListener *const listener = g_threadListener;
    if (listener != nullptr)
        listener->OnThreadLine(
            {GetCurrentThreadId(), level, static_cast<double>(info.timestampMS) / 1000, message.Clone()});
}

void ThreadLog::End(DWORD thread, bool killed) {
    Control::ThreadListener *const listener = g_threadListener;
    if (listener == nullptr)
        return;
    if (!killed)
        (void)wxLog::SetThreadActiveTarget(nullptr);
    listener->OnThreadEnd(thread, killed);
}

}  // namespace VtaCore
