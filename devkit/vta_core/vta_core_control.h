// What the host and the tests can do with the stand-in for vta_core beyond the agent's interface: create its objects,
// see what was traced, sent and shown, and decide what the agent would decide.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "vta_core.h"

namespace VtaCore::Control {

/// The stand-in's CDom, at the same address.
class VTA_CORE_API Dom : public CDom {
public:
    /// @param storePath  file that keeps the settings, written at every change; empty: memory only.
    explicit Dom(const wxString &storePath = wxString());
    ~Dom();

    struct Impl;
    /// For a CDom of the stand-in, like all of them.
    static Impl &ImplOf(const CDom &dom) { return *static_cast<const Dom &>(dom).m_impl; }

private:
    Impl *m_impl;
};

/// The stand-in's CZipOutputStream, at the same address.
class VTA_CORE_API ZipPackage : public CZipOutputStream {
public:
    /// Writes the package to `out`, which must outlive the object.
    explicit ZipPackage(wxOutputStream &out);
    /// Writes the package's directory, unless `Close` has.
    ~ZipPackage();

    /// Finishes the package; nothing can be added any more.
    bool Close();

    struct Impl;
    /// For a CZipOutputStream of the stand-in, like all of them.
    static Impl &ImplOf(CZipOutputStream &zip) { return *static_cast<ZipPackage &>(zip).m_impl; }

private:
    Impl *m_impl;
};

/// The maximum number of trace lines, events and notifications each; after that each new one replaces the oldest.
constexpr std::size_t kMaxRecords = 100'000;

struct TraceLine {
    double time;  ///< Seconds since 1970, UTC.
    wxString component;
    std::string file;
    int line;
    std::string function;
    wxString message;
};

struct Event {
    int number;
    int logId;        ///< 0 where the event was not logged.
    wxString format;  ///< As the caller gave it.
    wxString text;    ///< Formatted.
};

struct Notification {
    enum class Kind { User, Reboot };
    Kind kind;
    int code;  ///< Severity of a user notification, reason of a reboot.
    wxString text;
    wxString detail;
};

/// Called for everything as it happens, on its thread, one call at a time. It may call the library, but must not wait
/// for a thread that traces, sends or shows something.
class Observer {
public:
    virtual ~Observer() = default;
    virtual void OnTrace(const TraceLine &) {}
    virtual void OnEvent(const Event &) {}
    virtual void OnNotification(const Notification &) {}
};
/// @param observer  null for none; must exist until it is replaced. When this returns on another thread than the
///   observer's, no call of the previous observer is running. Any thread.
VTA_CORE_API void SetObserver(Observer *observer);

/// Switches a component's trace; "*" stands for all, including those named later, and overrides earlier switches of
/// single ones. All are off by default. Any thread.
VTA_CORE_API void EnableTrace(const wxString &component, bool enabled);

/// What happened since the last call, oldest first; clears the record. Any thread.
VTA_CORE_API std::vector<TraceLine> TakeTraces();
VTA_CORE_API std::vector<Event> TakeEvents();
VTA_CORE_API std::vector<Notification> TakeNotifications();

/// Makes CDom::ShouldExit true, and ends its waits.
VTA_CORE_API void SetShouldExit(CDom &dom, bool exit);
/// Why the settings file lacks a stored value, as from GetLastError; 0 if it is complete. Any thread.
VTA_CORE_API unsigned long SettingsError(const CDom &dom);
/// The folder below which CDom::GetPluginFileWx puts a plugin's files, as FOLDER\PLUGIN\NAME; empty, the default: the
/// folder "plugins" beside the program.
VTA_CORE_API void SetPluginFolder(CDom &dom, const wxString &folder);

/// Whether log grabbers append to their texts only when they are destroyed, instead of with each line, the default.
VTA_CORE_API void SetGrabbersHoldBack(bool holdBack);

/// Number of living objects of the library's classes: Dom, CRunnable, CLogGrabber, ZipPackage.
VTA_CORE_API int LiveObjects();

}  // namespace VtaCore::Control
