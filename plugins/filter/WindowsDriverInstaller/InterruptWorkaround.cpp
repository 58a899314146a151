#include "InterruptWorkaround.h"

#include <cstdlib>
#include <optional>

#include <windows.h>
#include <wx/log.h>
#include <wx/msw/registry.h>

#include "InstallerLog.h"
#include "fc/fc.h"

namespace {

constexpr char kVersionKey[] = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr char kNdisKey[] = "System\\CurrentControlSet\\Services\\NDIS\\Parameters";
constexpr char kBindMode[] = "FilterBindLogicMode";
constexpr char kFairShareKey[] = "System\\CurrentControlSet\\Services\\TSFairShare\\NetFS";
constexpr char kFairShare[] = "EnableFairShare";

struct WindowsVersion {
    int major = 0;
    int minor = 0;
    int build = 0;

    [[nodiscard]] bool Is(int otherMajor, int otherMinor) const { return major == otherMajor && minor == otherMinor; }
};

/// From version 10.0 with this build on, filters bind by another logic.
bool NeedsBindMode(const WindowsVersion &version) {
    constexpr int firstBuild = 16299;
    return version.major > 10 || (version.major == 10 && (version.minor > 0 || version.build >= firstBuild));
}

bool NeedsFairShareOff(const WindowsVersion &version) {
    constexpr int firstBuild = 17763;
    constexpr int lastBuild = 20347;
    return version.Is(10, 0) && version.build >= firstBuild && version.build <= lastBuild;
}

/// What the registry says of versions that the system tells no program without a manifest.
std::optional<WindowsVersion> VersionFromRegistry() {
    wxRegKey key(wxRegKey::HKLM, kVersionKey);
    wxString version;
    wxString build;
    if (!key.QueryValue("CurrentVersion", version) || !key.QueryValue("CurrentBuildNumber", build) ||
        !version.Contains("."))
        return std::nullopt;
    const auto number = [](const wxString &text) { return _wtoi(text.wc_str()); };
    return WindowsVersion{number(version.BeforeFirst('.')), number(version.AfterFirst('.')), number(build)};
}

std::optional<WindowsVersion> RunningVersion() {
    OSVERSIONINFOEXW record = {};
    record.dwOSVersionInfoSize = sizeof(record);
    static_assert(sizeof(record) == 284);
    if (GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&record)) == 0)
        return std::nullopt;
    const WindowsVersion version{static_cast<int>(record.dwMajorVersion), static_cast<int>(record.dwMinorVersion),
                                 static_cast<int>(record.dwBuildNumber)};
    return version.Is(6, 2) ? VersionFromRegistry() : version;
}

bool WriteNumber(wxRegKey &key, const char *path, const char *name, long number, const TraceSite &site) {
    if (key.Open(wxRegKey::Write) && key.SetValue(name, number))
        return true;
    Trace(site, "Unable to write HKLM\\%s\\%s", path, name);
    return false;
}

/// An absent value is made, one that can't be read stays as it is.
void SetBindMode(const TraceSite &site) {
    Trace(site, "InstallOrUpdateDriver: set registry %s", kBindMode);
    wxRegKey key(wxRegKey::HKLM, kNdisKey);
    if (!key.Exists())
        return;
    long mode = 0;
    if (key.HasValue(kBindMode) && !key.QueryValue(kBindMode, &mode))
        return;
    Trace(site, "InstallOrUpdateDriver: registry %s status: %ld", kBindMode, mode);
    if (mode == 0)
        (void)WriteNumber(key, kNdisKey, kBindMode, 1, site);
}

/// An absent value stays absent, unlike the other one. @return whether it was changed.
bool TurnFairShareOff(const TraceSite &site) {
    Trace(site, "InstallOrUpdateDriver: check registry %s", kFairShare);
    wxRegKey key(wxRegKey::HKLM, kFairShareKey);
    long enabled = 0;
    if (!key.Exists() || !key.HasValue(kFairShare) || !key.QueryValue(kFairShare, &enabled))
        return false;
    Trace(site, "InstallOrUpdateDriver: registry %s status: %ld", kFairShare, enabled);
    if (enabled == 0 || !WriteNumber(key, kFairShareKey, kFairShare, 0, site))
        return false;
    wxLogVerbose("InstallOrUpdateDriver: update registry %s (Reboot Require)", kFairShare);
    return true;
}

}  // namespace

bool SetNetworkInterruptWorkaround() {
    const std::optional<WindowsVersion> version = RunningVersion();
    if (!version || !NeedsBindMode(*version))
        return false;
    SetBindMode(kNdisTrace);
    return NeedsFairShareOff(*version) && TurnFairShareOff(kNdisTrace);
}
