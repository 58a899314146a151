#include "StackDump.h"

#include <array>
#include <string>

#include <windows.h>
// needs windows.h before it
#include <dbghelp.h>
#include <wx/log.h>
#include <wx/stackwalk.h>

#include "EnterWithin.h"
#include "LateResume.h"
#include "common/Unique.h"

namespace {

constexpr std::size_t kMaxFrames = 200;
constexpr int kPatienceMs = 10'000;  ///< Longer than a walk takes.

/// The addresses of a stack, the innermost first.
struct Frames {
    std::array<DWORD64, kMaxFrames> addresses{};
    std::size_t count = 0;
};

/// The symbols of the modules of this process, in a session of its own: another component may have one for the
/// process's usual handle.
class StackSymbols {
public:
    StackSymbols() : m_options(SymGetOptions()) {
        // Nothing may ask the network or a user: neither the environment's symbol path counts nor one in an image.
        SymSetOptions(m_options | SYMOPT_DEFERRED_LOADS | SYMOPT_UNDNAME | SYMOPT_IGNORE_NT_SYMPATH |
                      SYMOPT_IGNORE_CVREC | SYMOPT_DISABLE_SYMSRV_AUTODETECT | SYMOPT_FAIL_CRITICAL_ERRORS |
                      SYMOPT_NO_PROMPTS);
        HANDLE session = nullptr;
        if (DuplicateHandle(GetCurrentProcess(), GetCurrentProcess(), GetCurrentProcess(), &session, 0, FALSE,
                            DUPLICATE_SAME_ACCESS) == 0)
            return;
        m_session.reset(session);
        m_isOpen = SymInitializeW(session, FolderOfThisModule().c_str(), TRUE) != 0;
    }
    ~StackSymbols() {
        if (m_isOpen)
            (void)SymCleanup(m_session.get());
        SymSetOptions(m_options);
    }
    StackSymbols(const StackSymbols &) = delete;
    StackSymbols &operator=(const StackSymbols &) = delete;

    /// @return false if the name is not known.
    bool Find(DWORD64 address, wxString &name, std::size_t &offset) const {
        constexpr ULONG nameChars = 1'024;
        alignas(SYMBOL_INFOW) std::array<BYTE, sizeof(SYMBOL_INFOW) + nameChars * sizeof(wchar_t)> buffer{};
        auto *const symbol = reinterpret_cast<SYMBOL_INFOW *>(buffer.data());
        symbol->SizeOfStruct = sizeof(SYMBOL_INFOW);
        symbol->MaxNameLen = nameChars;
        DWORD64 displacement = 0;
        if (!m_isOpen || SymFromAddrW(m_session.get(), address, &displacement, symbol) == 0)
            return false;
        name = symbol->Name;
        offset = displacement;
        return true;
    }

private:
    /// Where symbol files are looked for, beside the folders of the modules. Not empty, which would be the
    /// environment's.
    static std::wstring FolderOfThisModule() {
        HMODULE module = nullptr;
        wchar_t path[MAX_PATH] = L"";
        (void)GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                                 reinterpret_cast<const wchar_t *>(&FolderOfThisModule), &module);
        const std::wstring file(path, GetModuleFileNameW(module, path, MAX_PATH));
        const std::size_t end = file.rfind(L'\\');
        return end == std::wstring::npos ? L"." : file.substr(0, end);
    }

    DWORD m_options;
    UniqueHandle m_session;
    bool m_isOpen = false;
};

class NamedStackFrame : public wxStackFrame {
public:
    NamedStackFrame(std::size_t level, DWORD64 address, const StackSymbols &symbols)
        : wxStackFrame(level, reinterpret_cast<void *>(address), 0) {
        (void)symbols.Find(address, m_name, m_offset);
    }

protected:
    void OnGetName() override {}  // set already
};

class StackDump : public wxStackWalker {
public:
    StackDump() : wxStackWalker(nullptr) {}

    /// Adds the frames with their names. Takes locks that a paused thread may hold.
    void Add(const Frames &frames) {
        const StackSymbols symbols;
        for (std::size_t level = 0; level < frames.count; ++level)
            OnStackFrame(NamedStackFrame(level, frames.addresses[level], symbols));
    }
    [[nodiscard]] const wxString &Text() const { return text; }

protected:
    void OnStackFrame(const wxStackFrame &frame) override {
        if (!text.empty())
            text += '\n';
        text += wxString::Format("[%02u] ", static_cast<unsigned>(frame.GetLevel()));
        // not reached: frames of a walk get a name and an offset, but no module
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

void *CALLBACK StackFunctionTableAt(HANDLE, DWORD64 address) {
    DWORD64 base = 0;
    return RtlLookupFunctionEntry(address, &base, nullptr);
}

DWORD64 CALLBACK StackModuleAt(HANDLE, DWORD64 address) {
    void *base = nullptr;
    return reinterpret_cast<DWORD64>(RtlPcToFileHeader(reinterpret_cast<void *>(address), &base));
}

/// Without symbols: these would be loaded while the thread is paused.
void WalkStackFrom(CONTEXT context, Frames &frames) {
    STACKFRAME64 frame = {};
    frame.AddrPC = {context.Rip, 0, AddrModeFlat};
    frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
    frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
    while (frames.count < kMaxFrames &&
           StackWalk64(IMAGE_FILE_MACHINE_AMD64, GetCurrentProcess(), GetCurrentThread(), &frame, &context, nullptr,
                       &StackFunctionTableAt, &StackModuleAt, nullptr) != 0)
        frames.addresses[frames.count++] = frame.AddrPC.Offset;
}

void WalkStack(DWORD id, Frames &frames) {
    const UniqueHandle handle(OpenThread(THREAD_GET_CONTEXT, FALSE, id));
    CONTEXT context = {};
    context.ContextFlags = CONTEXT_FULL;
    if (handle && GetThreadContext(handle.get(), &context) != 0)
        WalkStackFrom(context, frames);
}

/// Allocates nothing while the thread is paused, except inside the system.
void WalkPausedStack(wxThread &thread, Frames &frames) {
    const LateResume late(thread);
    const auto id = static_cast<DWORD>(thread.GetId());
    if (!late.IsReady() || thread.Pause() != wxTHREAD_NO_ERROR)
        return;
    WalkStack(id, frames);
    if (thread.Resume() != wxTHREAD_NO_ERROR)
        (void)thread.Resume();
}

}  // namespace

void PrepareStackDump() {
    // The first walk may load libraries.
    static const bool walked = [] {
        CONTEXT context = {};
        RtlCaptureContext(&context);
        Frames frames;
        WalkStackFrom(context, frames);
        return true;
    }();
    (void)walked;
}

wxString CaptureThreadStack(wxThread *thread) {
    static wxCriticalSection oneAtATime;  // the debug help library is for one thread at a time
    if (!EnterWithin(oneAtATime, kPatienceMs))
        return {};
    const LeaveAtEnd entered{oneAtATime};
    StackDump dump;
    const wxLogNull quiet;
    Frames frames;
    WalkPausedStack(*thread, frames);
    if (frames.count != 0)
        dump.Add(frames);
    return dump.Text();
}
