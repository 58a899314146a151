#include "DriverFlags.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include <wx/log.h>
#include <wx/msw/registry.h>
#include <wx/tokenzr.h>

#include "common/Trace.h"

namespace {

constexpr char kDriverKey[] = "System\\CurrentControlSet\\Services\\qbimvta";
constexpr char kDriverParametersKey[] = "System\\CurrentControlSet\\Services\\qbimvta\\Parameters";
constexpr char kCalloutParametersKey[] = "System\\CurrentControlSet\\Services\\qbimwfp\\Parameters";
constexpr char kChecked[] = "driverChecked";
constexpr char kHooked[] = "driverHooked";
constexpr char kUncheckedInterfaces[] = "UncheckedIfs";
constexpr char kLastStop[] = "LastTimeDriverStoppedByBLP";
constexpr long kUnknown = -1;

wxRegKey DriverFlagKey(const char *path) {
    return wxRegKey(wxRegKey::HKLM, path, wxRegKey::WOW64ViewMode_Default);
}

std::optional<long> ReadDriverFlagNumber(wxRegKey &key, const char *name) {
    const wxLogNull quiet;  // a value that is not there is nothing to report
    long number = 0;
    if (!key.HasValue(name) || !key.QueryValue(name, &number))
        return std::nullopt;
    return number;
}

/// @param value  a wxString or a long.
template <typename Value>
void WriteDriverFlagIfKeyExists(const char *name, const Value &value, const TraceSite &site) {
    wxRegKey key = DriverFlagKey(kDriverKey);
    // compat 8: stores nothing and says nothing without the driver's key
    if (!key.Exists())
        return;
    if (!key.Open(wxRegKey::Write) || !key.SetValue(name, value))
        Trace(site, "Unable to write HKLM\\%s\\%s", kDriverKey, name);
}

/// The number's integer part. What 32 bits don't hold becomes the least number, as the processor's own conversion
/// has it.
long DriverFlagIntegerPart(lua_Number number) {
    // compat 10: stores what 32 bits don't hold as the least number
    constexpr lua_Number limit = 2147483648.0;  // 2 to the power of 31
    if (!(number > -limit - 1 && number < limit))
        return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(number);
}

int PushDriverFlag(lua_State *L, const char *name, const char *format, const TraceSite &site) {
    wxRegKey key = DriverFlagKey(kDriverKey);
    const std::optional<long> number = ReadDriverFlagNumber(key, name);
    if (number)
        Trace(site, format, *number);
    lua_pushnumber(L, number.value_or(kUnknown));
    return 1;
}

int StoreDriverFlag(lua_State *L, const char *name, const TraceSite &site) {
    WriteDriverFlagIfKeyExists(name, DriverFlagIntegerPart(luaL_checknumber(L, 1)), site);
    return 1;  // compat 7: pushes nothing, so Lua gets the last argument
}

/// Lua: takes a light userdata that points at the texts, in UTF-8; yields them as an array.
int BuildUncheckedInterfaceArray(lua_State *L) {
    const auto &texts = *static_cast<const std::vector<std::string> *>(lua_touserdata(L, 1));
    lua_createtable(L, static_cast<int>(texts.size()), 0);
    int index = 0;
    for (const std::string &text : texts) {
        lua_pushlstring(L, text.data(), text.size());
        lua_rawseti(L, -2, ++index);
    }
    return 1;
}

/// Lua: takes an array and a light userdata that points at a wxString; joins the items there. What is neither string
/// nor number adds nothing, which leaves a doubled comma. An item ends at its first zero: whoever reads the registry
/// would take that for the end of the list.
int JoinUncheckedInterfaces(lua_State *L) {
    wxString &joined = *static_cast<wxString *>(lua_touserdata(L, 2));
    const int count = static_cast<int>(lua_rawlen(L, 1));
    for (int i = 1; i <= count; ++i) {
        // compat 9: joins with commas and escapes none
        if (i > 1)
            joined += ',';
        lua_rawgeti(L, 1, i);
        if (const char *const text = lua_tostring(L, -1))
            joined += wxString::FromUTF8(text);
        lua_pop(L, 1);
    }
    return 0;
}

std::vector<std::string> ReadUncheckedInterfaces(const TraceSite &site) {
    wxRegKey key = DriverFlagKey(kDriverKey);
    wxString list;
    {
        const wxLogNull quiet;
        if (!key.HasValue(kUncheckedInterfaces) || !key.QueryValue(kUncheckedInterfaces, list))
            return {};
    }
    Trace(site, "Get IfList: %s", list);
    std::vector<std::string> items;
    wxStringTokenizer tokens(list, ",", wxTOKEN_DEFAULT);
    while (tokens.HasMoreTokens()) {
        const wxString token = tokens.GetNextToken();
        if (!token.empty())
            items.emplace_back(token.utf8_str());
    }
    return items;
}

}  // namespace

int GetDriverCheckedFromReg(lua_State *L) {
    return PushDriverFlag(L, kChecked, "Get last driverChecked value: %ld", kFilterTrace);
}

int SetDriverCheckedToReg(lua_State *L) {
    return StoreDriverFlag(L, kChecked, kFilterTrace);
}

int GetDriverHookedFromReg(lua_State *L) {
    return PushDriverFlag(L, kHooked, "Get last driverHooked value: %ld", kFilterTrace);
}

int SetDriverHookedToReg(lua_State *L) {
    return StoreDriverFlag(L, kHooked, kFilterTrace);
}

int GetUncheckedInterface(lua_State *L) {
    int status = LUA_OK;
    {
        // Lua may run out of memory: its error would pass by the destructors.
        std::vector<std::string> items = ReadUncheckedInterfaces(kFilterTrace);
        lua_pushcfunction(L, BuildUncheckedInterfaceArray);
        lua_pushlightuserdata(L, &items);
        status = lua_pcall(L, 1, 1, 0);
    }
    if (status != LUA_OK)
        return lua_error(L);
    return 1;
}

int SetUncheckedInterface(lua_State *L) {
    if (lua_type(L, 1) != LUA_TTABLE)
        return luaL_argerror(L, 1, "lua table expected");
    int status = LUA_OK;
    {
        wxString list;
        lua_pushcfunction(L, JoinUncheckedInterfaces);
        lua_pushvalue(L, 1);
        lua_pushlightuserdata(L, &list);
        status = lua_pcall(L, 2, 0, 0);
        if (status == LUA_OK) {
            Trace(kFilterTrace, "Set ifList: %s", list);  // also when the key is missing
            WriteDriverFlagIfKeyExists(kUncheckedInterfaces, list, kFilterTrace);
        }
    }
    if (status != LUA_OK)
        return lua_error(L);
    return 1;  // compat 7: pushes nothing, so Lua gets the last argument
}

int GetDriverStoppedByBLPTimestamp(lua_State *L) {
    wxRegKey driver = DriverFlagKey(kDriverParametersKey);
    wxRegKey callout = DriverFlagKey(kCalloutParametersKey);
    const std::optional<long> driverStop = driver.Exists() ? ReadDriverFlagNumber(driver, kLastStop) : std::nullopt;
    if (driverStop)
        Trace(kFilterTrace, "Get last vta last value: %ld", *driverStop);
    lua_pushnumber(L, driverStop.value_or(kUnknown));
    const std::optional<long> calloutStop = callout.Exists() ? ReadDriverFlagNumber(callout, kLastStop) : std::nullopt;
    if (calloutStop)
        Trace(kFilterTrace, "Get last wfp last value: %ld", *calloutStop);
    lua_pushnumber(L, calloutStop.value_or(kUnknown));
    return 2;
}
