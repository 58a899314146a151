#include "InterruptWorkaround.h"

#include <cstdlib>
#include <optional>

#include <windows.h>
#include <wx/log.h>
#include <wx/msw/registry.h>

#include "WindowsDriverInstaller/NdisTrace.h"
#include "common/Trace.h"
#include "common/Unique.h"
#include "common/WindowsVersion.h"

namespace {

constexpr char kVersionKey[] = "SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion";
constexpr wchar_t kNdisKey[] = L"System\\CurrentControlSet\\Services\\NDIS\\Parameters";
constexpr wchar_t kBindMode[] = L"FilterBindLogicMode";
constexpr wchar_t kFairShareKey[] = L"System\\CurrentControlSet\\Services\\TSFairShare\\NetFS";
constexpr wchar_t kFairShare[] = L"EnableFairShare";

struct WorkaroundVersion {
    int major = 0;
    int minor = 0;
    int build = 0;

    [[nodiscard]] bool Is(int otherMajor, int otherMinor) const { return major == otherMajor && minor == otherMinor; }
};

/// From this build of version 10.0 on, filters bind by another logic.
bool WorkaroundNeedsBindMode(const WorkaroundVersion &version) {
    constexpr int firstBuild = 16299;
    return version.major > 10 || (version.major == 10 && (version.minor > 0 || version.build >= firstBuild));
}

bool WorkaroundNeedsFairShareOff(const WorkaroundVersion &version) {
    constexpr int firstBuild = 17763;
    constexpr int lastBuild = 20347;
    return version.Is(10, 0) && version.build >= firstBuild && version.build <= lastBuild;
}

/// The version in the registry. Windows hides it from programs without a manifest.
std::optional<WorkaroundVersion> WorkaroundVersionFromRegistry() {
    const wxLogNull quiet;
    wxRegKey key(wxRegKey::HKLM, kVersionKey);
    wxString version;
    wxString build;
    if (!key.QueryValue("CurrentVersion", version) || !key.QueryValue("CurrentBuildNumber", build) ||
        !version.Contains("."))
        return std::nullopt;
    const auto number = [](const wxString &text) { return _wtoi(text.wc_str()); };
    return WorkaroundVersion{number(version.BeforeFirst('.')), number(version.AfterFirst('.')), number(build)};
}

std::optional<WorkaroundVersion> QueryWorkaroundVersion() {
    OSVERSIONINFOEXW record = {};
    if (!QueryWindowsVersion(record))
        return std::nullopt;
    const WorkaroundVersion version{static_cast<int>(record.dwMajorVersion), static_cast<int>(record.dwMinorVersion),
                                    static_cast<int>(record.dwBuildNumber)};
    return version.Is(6, 2) ? WorkaroundVersionFromRegistry() : version;
}

/// @return ERROR_SUCCESS with the number; ERROR_FILE_NOT_FOUND only if the key was read and has no such value.
LSTATUS QueryWorkaroundNumber(const wchar_t *path, const wchar_t *name, DWORD &number) {
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return ERROR_CANTREAD;
    const UniqueKey key(opened);
    DWORD type = REG_NONE;
    DWORD size = sizeof(number);
    const LSTATUS status = RegQueryValueExW(key.get(), name, nullptr, &type, reinterpret_cast<BYTE *>(&number), &size);
    return status == ERROR_SUCCESS && type != REG_DWORD ? ERROR_INVALID_DATATYPE : status;
}

bool WriteWorkaroundNumber(wxRegKey &key, const wchar_t *path, const wchar_t *name, long number,
                           const TraceSite &site) {
    {
        const wxLogNull quiet;  // traced below
        if (key.Open(wxRegKey::Write) && key.SetValue(name, number))
            return true;
    }
    Trace(site, "Unable to write HKLM\\%s\\%s", path, name);
    return false;
}

/// Creates the value if it is absent; leaves one that can't be read.
void SetWorkaroundBindMode(const TraceSite &site) {
    Trace(site, "InstallOrUpdateDriver: set registry %s", kBindMode);
    wxRegKey key(wxRegKey::HKLM, kNdisKey);
    if (!key.Exists())
        return;
    DWORD mode = 0;
    const LSTATUS status = QueryWorkaroundNumber(kNdisKey, kBindMode, mode);
    if (status == ERROR_FILE_NOT_FOUND)
        mode = 0;
    else if (status != ERROR_SUCCESS)
        return;
    Trace(site, "InstallOrUpdateDriver: registry %s status: %ld", kBindMode, static_cast<long>(mode));
    if (mode == 0)
        (void)WriteWorkaroundNumber(key, kNdisKey, kBindMode, 1, site);
}

/// compat 130: an absent value stays absent, unlike the other one. @return whether it was changed.
bool SetWorkaroundFairShareOff(const TraceSite &site) {
    Trace(site, "InstallOrUpdateDriver: check registry %s", kFairShare);
    wxRegKey key(wxRegKey::HKLM, kFairShareKey);
    DWORD enabled = 0;
    if (!key.Exists() || QueryWorkaroundNumber(kFairShareKey, kFairShare, enabled) != ERROR_SUCCESS)
        return false;
    Trace(site, "InstallOrUpdateDriver: registry %s status: %ld", kFairShare, static_cast<long>(enabled));
    if (enabled == 0 || !WriteWorkaroundNumber(key, kFairShareKey, kFairShare, 0, site))
        return false;
    wxLogVerbose("InstallOrUpdateDriver: update registry %s (Reboot Require)", kFairShare);
    return true;
}

}  // namespace

bool SetNetworkInterruptWorkaround() {
    const std::optional<WorkaroundVersion> version = QueryWorkaroundVersion();
    if (!version || !WorkaroundNeedsBindMode(*version))
        return false;
    const TraceSite site(kNdisTrace);
    SetWorkaroundBindMode(site);
    return WorkaroundNeedsFairShareOff(*version) && SetWorkaroundFairShareOff(site);
}
