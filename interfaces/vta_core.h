// vta_core, the agent's core library, as far as this module needs it.
#pragma once

#include <cstdarg>
#include <cstddef>

#include <windows.h>
#include <wx/log.h>
#include <wx/stream.h>
#include <wx/string.h>
#include <wx/thread.h>

#ifdef VTA_CORE_BUILD
#define VTA_CORE_API __declspec(dllexport)
#else
#define VTA_CORE_API __declspec(dllimport)
#endif

/// Reasons that the agent can give a user for a reboot; the name is the core library's own.
enum _RebootReason : int {
    RebootReasonFilterDriver = 5,
};

extern "C" {
/// The two words through which the agent's profiler communicates with the driver-interface library.
VTA_CORE_API extern volatile unsigned profiler_blockfilter;
VTA_CORE_API extern volatile unsigned profiler_running;
}

namespace VtaCore {

/// The agent's central object: settings, paths, events. Made and owned by the agent; any thread.
class VTA_CORE_API CDom {
public:
    CDom(const CDom &) = delete;
    CDom &operator=(const CDom &) = delete;

    /// Reads a flag. For an unknown key it does not change `flag`, and returns false.
    bool Get(const char *key, bool &flag) const;
    void Set(const char *key, bool flag);
    /// The text of a setting, empty if there is none.
    wxString GetWxString(const char *key) const;

    /// The stored text, empty if there is none.
    wxString SettingRetrieve(const wxString &key) const;
    /// Stores a text permanently. A failure is not reported.
    void SettingStore(const wxString &key, const wxString &value);

    /// Full path of a file that belongs to a plugin of the agent.
    wxString GetPluginFileWx(const char *plugin, const char *name) const;

    /// Whether the agent is stopping.
    /// @param waitMs       how long to wait for that, milliseconds.
    /// @param interrupted  set to whether the wait was interrupted; may be null.
    bool ShouldExit(unsigned waitMs, bool *interrupted) const;

    /// Sends an agent event whose text is `format` without arguments: a percent sign in it is interpreted as a
    /// directive.
    void AgentEventWrite(int event, const wxFormatString &format);
    /// Sends an agent event; the arguments follow the rules of wxString::Format's narrow core, that
    /// is, %s takes a `const wchar_t *`.
    void DoAgentEventWrite(int event, const wchar_t *format, ...);
    /// The same, and writes the text to the agent's log under the number `logId`.
    void DoAgentEventWriteAndLog(int event, int logId, const wchar_t *format, ...);

protected:
    CDom() = default;
    ~CDom() = default;
};

/// The agent's thread: `Run` is its body.
class VTA_CORE_API CRunnable : public wxThread {
public:
    /// @param suspended  the thread waits for a first `Awaken` before its body runs.
    /// @param processor  the processor it is bound to, -1 for any.
    /// @param detached   the object frees itself when its thread ends; otherwise its owner does.
    CRunnable(bool suspended, int processor, bool detached);
    /// Of an object that is not detached, whose body has returned: waits until its thread has ended, too.
    ~CRunnable() override;

    /// Starts the thread.
    /// @param priority   0 to 100, 50 is normal.
    /// @param create     true where wxThread::Create has not been called before.
    /// @param stackSize  bytes, 0 for the default.
    /// @return true when the thread runs.
    bool start(unsigned priority, bool create, unsigned stackSize);
    /// True from `start` until the body has returned or the thread was killed.
    bool isRunning() const;

protected:
    /// Names the thread and calls `Run`.
    void *Entry() override;
    void OnDelete() override;
    void OnKill() override;
    /// A class that overrides this must call it: it ends `isRunning`.
    void OnExit() override;

public:
    // The order of the virtual functions from here on is fixed by the core library, after wxThread's own. Both
    // TestDestroy are declared here because MSVC places all overloads of a name where it first sees one; the one
    // without arguments keeps wxThread's slot.

    /// Asks the thread to end and waits for it. A detached object is gone afterwards.
    virtual void Delete();
    /// The thread's name, for traces.
    virtual const char *Name() const = 0;
    /// Ends a wait in `TestDestroy(unsigned, bool *)`.
    virtual void Awaken();
    /// Ends a wait in `TestDestroy(unsigned, bool *)` and marks it as interrupted.
    virtual void interrupt();
    /// Asks the thread to end; `TestDestroy` is true from then on.
    virtual void requestExit();
    bool TestDestroy() override;
    /// Waits at most so many milliseconds for a request to end.
    /// @param interrupted  set to whether `interrupt` cut the wait short; may be null.
    virtual bool TestDestroy(unsigned waitMs, bool *interrupted);

protected:
    /// The thread's body.
    virtual void Run() = 0;

private:
    struct Impl;
    Impl *m_impl;
};

/// A log target that collects log records into a text, each followed by a line feed.
class VTA_CORE_API CLogGrabber : public wxLog {
public:
    /// @param text         receives the lines; must outlive the grabber.
    /// @param passOn       hand each record on to the target that was active before.
    /// @param withVerbose  take records of the level info as well.
    CLogGrabber(wxString &text, bool passOn, bool withVerbose);
    ~CLogGrabber() override;

protected:
    void DoLogRecord(wxLogLevel level, const wxString &message, const wxLogRecordInfo &info) override;

private:
    struct Impl;
    Impl *m_impl;
};

/// The stream of a diagnostic package. Made and owned by the agent.
class VTA_CORE_API CZipOutputStream {
public:
    CZipOutputStream(const CZipOutputStream &) = delete;
    CZipOutputStream &operator=(const CZipOutputStream &) = delete;

    /// Adds one file with the content of `in`.
    /// @param text     the file is a text.
    /// @param name     the file's name in the package.
    /// @param comment  the file's comment in the package, usually empty.
    /// @return true if the file was added.
    bool AddFromStream(wxInputStream &in, bool text, const wxString &name, const wxString &comment);

protected:
    CZipOutputStream() = default;
    ~CZipOutputStream() = default;
};

/// Whether trace lines of the component are enabled.
VTA_CORE_API bool LogTraceIsEnabled(const wxString &component);
VTA_CORE_API bool LogTraceIsEnabled(const wchar_t *component);
/// Writes a trace line.
/// @param function  the full name of the function that traces.
VTA_CORE_API void LogTrace(const wxString &component, const char *file, int line, const char *function,
                           const wxString &message);

/// Milliseconds since the system started; wraps at 32 bits.
VTA_CORE_API unsigned SystemTickCount();

/// The text of a message table's entry, in the user's language.
/// @param size  room for the text, in characters.
/// @param ...   the message's inserts, each a `const wchar_t *`.
VTA_CORE_API wxString LocalizedMsg(unsigned id, unsigned size, HINSTANCE module, ...);

/// Shows the user a notification. @param severity  0 information, 1 warning, 2 error.
VTA_CORE_API void ShowUserNotification(int severity, const wxString &text, const wxString &detail);
/// Asks the user for a reboot.
VTA_CORE_API void ShowRebootNotification(_RebootReason reason);

/// A GUID in braces, upper case.
VTA_CORE_API wxString toString(const GUID &guid);
/// Two lower-case digits for each byte, nothing between them.
VTA_CORE_API wxString toHexString(const void *data, std::size_t size);

/// Like vsnprintf, but the buffer always ends with a NUL; -1 if the text was truncated.
VTA_CORE_API int vsnprintf_safe(char *buffer, std::size_t size, const char *format, va_list arguments);

}  // namespace VtaCore
