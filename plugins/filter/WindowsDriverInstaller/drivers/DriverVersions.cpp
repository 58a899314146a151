#include "DriverVersions.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include <windows.h>

#include "WindowsDriverInstaller/NdisTrace.h"
#include "common/Block.h"
#include "common/DriverFailure.h"
#include "common/DriverHandle.h"
#include "common/Trace.h"
#include "vti.h"

namespace {

constexpr std::size_t kVersionTextBytes = 112;  // the size of the library's buffer, which it is not told
constexpr int kComponents = 4;

/// Reads the running driver's version text. @return false without a driver, or after reporting a failure.
bool ReadDriverVersionText(VtaCore::CDom &dom, std::array<char, kVersionTextBytes + 1> &text) {
    DriverHandle handle(vti_open());
    // compat 151: a driver that can't be opened sends no event
    if (!handle)
        return false;
    const std::int32_t status = vti_get_version(handle.get(), text.data());
    handle.reset();
    if (status == 0)
        return true;
    dom.DoAgentEventWrite(kDriverFailureEvent, L"GET_VERSION|%08x", static_cast<unsigned>(status));
    return false;
}

}  // namespace

int GetFileVersion(lua_State *L) {
    std::array<unsigned short, kComponents> version = {};
    const char *const path = luaL_checklstring(L, 1, nullptr);
    if (!GetFileVersion(wxString::FromUTF8(path), &version[0], &version[1], &version[2], &version[3]))
        // compat 69: no result at all, not nil
        return 0;
    for (const unsigned short component : version)
        lua_pushinteger(L, static_cast<std::int16_t>(component));  // compat 68: signed, so 65535 comes out as -1
    return kComponents;
}

bool GetFileVersion(const wxString &path, unsigned short *major, unsigned short *minor, unsigned short *build,
                    unsigned short *revision) {
    DWORD unused = 0;
    const DWORD size = GetFileVersionInfoSizeW(path.wc_str(), &unused);
    if (size == 0)
        return false;
    const Block<void> block(std::malloc(size));
    void *root = nullptr;
    UINT length = 0;
    if (!block || GetFileVersionInfoW(path.wc_str(), 0, size, block.get()) == 0 ||
        VerQueryValueW(block.get(), L"\\", &root, &length) == 0 || length < sizeof(VS_FIXEDFILEINFO))
        return false;
    const auto *const info = static_cast<const VS_FIXEDFILEINFO *>(root);
    *major = HIWORD(info->dwFileVersionMS);
    *minor = LOWORD(info->dwFileVersionMS);
    *build = HIWORD(info->dwFileVersionLS);
    *revision = LOWORD(info->dwFileVersionLS);
    return true;
}

bool GetDriverVersion(VtaCore::CDom &dom, unsigned short *major, unsigned short *minor, unsigned short *build,
                      unsigned short *revision) {
    *major = *minor = *build = *revision = 0;
    std::array<char, kVersionTextBytes + 1> text = {};
    if (!ReadDriverVersionText(dom, text))
        return false;
    std::array<int, kComponents> parts = {};
    // NOLINTNEXTLINE(cert-err34-c): what does not fit is cut to 16 bits all the same
    if (std::sscanf(text.data(), "%d.%d.%d.%d", &parts[0], &parts[1], &parts[2], &parts[3]) != kComponents) {
        Trace(kNdisTrace, "Unable to parse the version string returned from the running driver ('%.64s')",
              OutsideText{text.data()});
        return false;
    }
    // compat 70: cuts each part to 16 bits
    *major = static_cast<unsigned short>(parts[0]);
    *minor = static_cast<unsigned short>(parts[1]);
    *build = static_cast<unsigned short>(parts[2]);
    *revision = static_cast<unsigned short>(parts[3]);
    return true;
}

bool GetFileVersion(const wxString &path, DriverVersion &version) {
    return GetFileVersion(path, &version.major, &version.minor, &version.build, &version.revision);
}

bool GetDriverVersion(VtaCore::CDom &dom, DriverVersion &version) {
    return GetDriverVersion(dom, &version.major, &version.minor, &version.build, &version.revision);
}

std::int64_t PackDriverVersion(const DriverVersion &version) {
    auto packed = std::uint64_t{0};
    for (const unsigned short component : {version.major, version.minor, version.build, version.revision})
        packed = (packed << 16) | static_cast<std::uint64_t>(std::int64_t{static_cast<std::int16_t>(component)});
    return static_cast<std::int64_t>(packed);
}
