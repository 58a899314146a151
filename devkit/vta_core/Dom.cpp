// The agent's central object.
#include <mutex>
#include <type_traits>

#include <wx/filename.h>
#include <wx/stdpaths.h>

#include "EventText.h"
#include "Handle.h"
#include "LiveObject.h"
#include "Records.h"
#include "SettingsStore.h"
#include "Utf8.h"
#include "settings_control.h"

namespace VtaCore {

struct Control::Dom::Impl {
    explicit Impl(const wxString &storePath) : settings(storePath), exitEvent(NewEvent(Reset::Manual)) {}

    LiveObject live;
    SettingsStore settings;
    Handle exitEvent;
    mutable std::mutex folderMutex;
    wxString pluginFolder;  ///< Empty: the default.
};

namespace {

static_assert(std::is_empty_v<CDom>);  // the agent's class has none of the stand-in's state

Control::Dom::Impl &ImplOf(const CDom *dom) {
    return Control::Dom::ImplOf(*dom);
}

wxString DefaultPluginFolder() {
    return wxFileName(wxStandardPaths::Get().GetExecutablePath()).GetPath() + "\\plugins";
}

void Send(int event, int logId, const wchar_t *format, va_list arguments) {
    Records::Add(Control::Event{event, logId, format, wxString::FormatV(format, arguments)});
}

}  // namespace

bool CDom::Get(const char *key, bool &flag) const {
    return ImplOf(this).settings.GetFlag(key, flag);
}

void CDom::Set(const char *key, bool flag) {
    ImplOf(this).settings.SetFlag(key, flag);
}

wxString CDom::GetWxString(const char *key) const {
    return ImplOf(this).settings.GetText(key);
}

wxString CDom::SettingRetrieve(const wxString &key) const {
    return ImplOf(this).settings.GetText(ToUtf8(key));
}

void CDom::SettingStore(const wxString &key, const wxString &value) {
    ImplOf(this).settings.SetText(ToUtf8(key), value);
}

wxString CDom::GetPluginFileWx(const char *plugin, const char *name) const {
    wxString folder;
    {
        const std::lock_guard lock(ImplOf(this).folderMutex);
        folder = ImplOf(this).pluginFolder;
    }
    if (folder.empty())
        folder = DefaultPluginFolder();
    if (!folder.ends_with("\\"))
        folder += '\\';
    return folder + FromUtf8(plugin) + '\\' + FromUtf8(name);
}

bool CDom::ShouldExit(unsigned waitMs, bool *interrupted) const {
    const bool exit = WaitForSingleObject(ImplOf(this).exitEvent.get(), waitMs) == WAIT_OBJECT_0;
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

Control::Dom::Dom(const wxString &storePath) : m_impl(new Impl(storePath)) {}

Control::Dom::~Dom() {
    delete m_impl;
}

void Control::SetShouldExit(CDom &dom, bool exit) {
    const HANDLE event = ImplOf(&dom).exitEvent.get();
    exit ? SetEvent(event) : ResetEvent(event);
}

unsigned long Control::SettingsError(const CDom &dom) {
    return ImplOf(&dom).settings.Error();
}

wxString Control::SettingsFault(const wxString &storePath) {
    return SettingsStore::Fault(storePath);
}

void Control::SetPluginFolder(CDom &dom, const wxString &folder) {
    const std::lock_guard lock(ImplOf(&dom).folderMutex);
    ImplOf(&dom).pluginFolder = folder;
}

}  // namespace VtaCore
