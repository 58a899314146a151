// The versions of driver files and of the running driver: four components, all zero for an unknown one.
#pragma once

#include <cstdint>

#include <lua.hpp>
#include <wx/string.h>

#include "vta_core.h"

/// All zero: unknown.
struct DriverVersion {
    unsigned short major = 0;
    unsigned short minor = 0;
    unsigned short build = 0;
    unsigned short revision = 0;

    bool operator==(const DriverVersion &) const = default;
};

/// Lua: major, minor, build, revision = f(path). Each a signed 16-bit number; nothing at all if the file has no version
/// that can be read. The path is in UTF-8.
int GetFileVersion(lua_State *L);

/// @return false if the file has no version that can be read; the components stay as they were then.
bool GetFileVersion(const wxString &path, unsigned short *major, unsigned short *minor, unsigned short *build,
                    unsigned short *revision);

/// The version of the running NDIS filter driver.
/// @return whether it answered, and the answer could be read; otherwise the components are 0.
bool GetDriverVersion(VtaCore::CDom &dom, unsigned short *major, unsigned short *minor, unsigned short *build,
                      unsigned short *revision);

bool GetFileVersion(const wxString &path, DriverVersion &version);
bool GetDriverVersion(VtaCore::CDom &dom, DriverVersion &version);

/// One number for comparisons. compat 67: a component of 0x8000 or more fills the bits above it with ones
std::int64_t PackDriverVersion(const DriverVersion &version);
