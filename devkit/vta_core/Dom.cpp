// The agent's central object.
#include <mutex>

#include <wx/filename.h>
#include <wx/stdpaths.h>

#include "EventText.h"
#include "Handle.h"
#include "LiveObject.h"
#include "Records.h"
#include "SettingsStore.h"
#include "Utf8.h"

namespace VtaCore {

struct CDom::Impl {
    explicit Impl(const wxString &storePath) : settings(storePath), exitEvent(NewEvent(Reset::Manual)) {}

    LiveObject live;
    SettingsStore settings;
    Handle exitEvent;
    mutable std::mutex folderMutex;
    wxString pluginFolder;  ///< Empty: the default.
};

namespace {

wxString DefaultPluginFolder() {
    return wxFileName(wxStandardPaths::Get().GetExecutablePath()).GetPath() + "\\plugins";
}

void Send(int event, int logId, const wchar_t *format, va_list arguments) {
    Records::Add(Control::Event{event, logId, format, wxString::FormatV(format, arguments)});
}

}  // namespace

CDom::CDom(const wxString &storePath) : m_impl(new Impl(storePath)) {}

CDom::~CDom() {
    delete m_impl;
}

bool CDom::Get(const char *key, bool &flag) const {
    return m_impl->settings.GetFlag(key, flag);
}

void CDom::Set(const char *key, bool flag) {
    m_impl->settings.SetFlag(key, flag);
}

wxString CDom::GetWxString(const char *key) const {
    return m_impl->settings.GetText(key);
}

wxString CDom::SettingRetrieve(const wxString &key) const {
    return m_impl->settings.GetText(ToUtf8(key));
}

void CDom::SettingStore(const wxString &key, const wxString &value) {
    m_impl->settings.SetText(ToUtf8(key), value);
}

wxString CDom::GetPluginFileWx(const char *plugin, const char *name) const {
    wxString folder;
    {
        const std::lock_guard lock(m_impl->folderMutex);
        folder = m_impl->pluginFolder;
    }
    if (folder.empty())
        folder = DefaultPluginFolder();
    if (!folder.ends_with("\\"))
        folder += '\\';
    return folder + FromUtf8(plugin) + '\\' + FromUtf8(name);
}

bool CDom::ShouldExit(unsigned waitMs, bool *interrupted) const {
    const bool exit = WaitForSingleObject(m_impl->exitEvent.get(), waitMs) == WAIT_OBJECT_0;
    if (interrupted != nullptr)
        *interrupted = exit;
    return exit;
}

void CDom::AgentEventWrite(int event, const wxFormatString &format) {
    const wxString given = format.InputAsString();
    Records::Add(Control::Event{event, 0, given, FormatWithoutArguments(given)});
}

void CDom::DoAgentEventWrite(int event, const wchar_t *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Send(event, 0, format, arguments);
    va_end(arguments);
}

void CDom::DoAgentEventWriteAndLog(int event, int logId, const wchar_t *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    Send(event, logId, format, arguments);
    va_end(arguments);
}

void Control::SetShouldExit(CDom &dom, bool exit) {
    const HANDLE event = dom.impl().exitEvent.get();
    exit ? SetEvent(event) : ResetEvent(event);
}

void Control::SetPluginFolder(CDom &dom, const wxString &folder) {
    const std::lock_guard lock(dom.impl().folderMutex);
    dom.impl().pluginFolder = folder;
}

}  // namespace VtaCore
