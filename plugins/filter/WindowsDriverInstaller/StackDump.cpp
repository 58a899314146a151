#include "StackDump.h"

#include <memory>
#include <type_traits>

#include <windows.h>
#include <wx/log.h>
#include <wx/stackwalk.h>

namespace {

constexpr std::size_t kMaxFrames = 200;

class StackDump : public wxStackWalker {
public:
    StackDump() : wxStackWalker(nullptr) {}

    [[nodiscard]] const wxString &Text() const { return text; }

protected:
    void OnStackFrame(const wxStackFrame &frame) override {
        if (!text.empty())
            text += '\n';
        text += wxString::Format("[%02u] ", static_cast<unsigned>(frame.GetLevel()));
        if (!frame.GetModule().empty())
            text += frame.GetModule() + ":";
        if (frame.GetName().empty())
            text += wxString::Format("%p", frame.GetAddress());
        else
            text += wxString::Format("%s+%u", frame.GetName(), static_cast<unsigned>(frame.GetOffset()));
    }

private:
    wxString text;
};

struct CloseThread {
    void operator()(HANDLE handle) const { (void)CloseHandle(handle); }
};
using Thread = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseThread>;

wxString WalkStack(wxThreadIdType id) {
    const Thread handle(OpenThread(THREAD_GET_CONTEXT, FALSE, static_cast<DWORD>(id)));
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_FULL;
    if (!handle || GetThreadContext(handle.get(), &context) == 0)
        return {};
    StackDump dump;
    dump.WalkFrom(&context, 0, kMaxFrames);
    return dump.Text();
}

constexpr int kPatienceMs = 10'000;  ///< Longer than a walk takes.

/// A walk that is stuck must not hold up others.
bool EnterWithin(wxCriticalSection &section, int milliseconds) {
    constexpr int pauseMs = 50;
    for (; !section.TryEnter(); milliseconds -= pauseMs) {
        if (milliseconds <= 0)
            return false;
        wxThread::Sleep(pauseMs);
    }
    return true;
}

}  // namespace

void PrepareStackDump() {
    // The walker loads its library at the first walk, whatever that is of.
    static const bool walked = [] {
        StackDump().Walk(0, 1);
        return true;
    }();
    (void)walked;
}

wxString CaptureThreadStack(wxThread *thread) {
    static wxCriticalSection oneAtATime;  // the debug help library is for one thread at a time
    if (!EnterWithin(oneAtATime, kPatienceMs))
        return {};
    wxString text;
    {
        const wxLogNull quiet;
        if (thread->Pause() == wxTHREAD_NO_ERROR) {
            text = WalkStack(thread->GetId());
            (void)thread->Resume();
        }
    }
    oneAtATime.Leave();
    return text;
}
