#include "SweptFunctions.h"

#include <cmath>
#include <cstring>
#include <set>
#include <string_view>

namespace {

/// The position of one argument.
struct Argument {
    lua_State *state;
    int index;   ///< Absolute.
    int number;  ///< From 1.
    AgentKind kind;
};

std::string BadArgument(const Argument &argument, const std::string &text) {
    return "bad argument #" + std::to_string(argument.number) + " to '?' (" + text;
}

/// The error that the argument raises, empty if it is right:
///   s string or number, n number or a string that is one, t table;
///   D dom of a bound function, d of another one, h driver handle, o open driver handle, z zip;
///   . anything.
std::string ArgumentRule(char rule, const Argument &argument) {
    lua_State *const L = argument.state;
    switch (rule) {
        case 's':
            return lua_isstring(L, argument.index) != 0 ? "" : BadArgument(argument, "string expected, got ");
        case 'n':
            return lua_isnumber(L, argument.index) != 0 ? "" : BadArgument(argument, "number expected, got ");
        case 't':
            return lua_istable(L, argument.index) ? "" : BadArgument(argument, "lua table expected)");
        case 'D':
            return argument.kind == AgentKind::Dom ? "" : "Expected (non-const) Object SLB.Dom";
        case 'd':
            return argument.kind == AgentKind::Dom ? "" : BadArgument(argument, "CDom object expected)");
        case 'o':
            if (argument.kind == AgentKind::ClosedHandle)
                return BadArgument(argument, "vti handle already closed)");
            return argument.kind == AgentKind::Handle ? "" : BadArgument(argument, "vti handle expected)");
        case 'h':
            if (argument.kind == AgentKind::Handle || argument.kind == AgentKind::ClosedHandle)
                return "";
            return BadArgument(argument, "vti handle expected)");
        case 'z':
            return argument.kind == AgentKind::Zip ? "" : BadArgument(argument, "CZipOutputStream object expected)");
        default:
            return "";
    }
}

bool BeginsWithAState(lua_State *L, int index) {
    if (lua_type(L, index) != LUA_TSTRING)
        return false;
    const std::string_view text = lua_tostring(L, index);
    return text.starts_with("Activated") || text.starts_with("Deactivated");
}

bool IsStringArray(lua_State *L, int index) {
    const auto count = static_cast<int>(lua_rawlen(L, index));
    for (int i = 1; i <= count; ++i) {
        lua_rawgeti(L, index, i);
        const bool isString = lua_type(L, -1) == LUA_TSTRING && lua_rawlen(L, -1) != 0;
        lua_pop(L, 1);
        if (!isString)
            return false;
    }
    return true;
}

/// Whether each item of the array is a table with the number `field`.
bool IsArrayOfRows(lua_State *L, int index, const char *field) {
    const auto count = static_cast<int>(lua_rawlen(L, index));
    bool isRight = true;
    for (int i = 1; i <= count && isRight; ++i) {
        lua_rawgeti(L, index, i);
        isRight = lua_istable(L, -1);
        if (isRight) {
            lua_getfield(L, -1, field);
            isRight = lua_type(L, -1) == LUA_TNUMBER;
            lua_pop(L, 1);
        }
        lua_pop(L, 1);
    }
    return isRight;
}

bool IsMetrics(lua_State *L, int index) {
    if (lua_rawlen(L, index) != 7)
        return false;
    lua_rawgeti(L, index, 7);
    lua_getfield(L, -1, "cpu_count");
    const bool hasCount = lua_type(L, -1) == LUA_TNUMBER;
    lua_pop(L, 2);
    return hasCount;
}

bool IsAction(lua_State *L, int index, bool badArguments) {
    static const std::set<int> actions{0, 1, 2, 5, 7};
    constexpr int badArgument = 6;
    lua_getfield(L, index, "action");
    const bool isNumber = lua_type(L, -1) == LUA_TNUMBER;
    const int action = static_cast<int>(lua_tointeger(L, -1));
    lua_pop(L, 1);
    return isNumber && (badArguments ? action == badArgument : actions.contains(action));
}

bool IsSame(lua_State *L, int one, int other) {
    if (lua_rawequal(L, one, other) != 0)
        return true;
    return lua_type(L, one) == LUA_TNUMBER && lua_type(L, other) == LUA_TNUMBER && std::isnan(lua_tonumber(L, one)) &&
           std::isnan(lua_tonumber(L, other));
}

/// The position of a result, and what it is compared with.
struct Result {
    lua_State *state;
    int index;
    int lastArgument;
    bool badArguments;
};

/// Whether the result is of the kind of its letter:
///   b boolean, T true, n number, z zero; = the last argument;
///   a table with an action, r rows of connections, m metrics of the health, i strings.
bool IsRight(char letter, const Result &result) {
    lua_State *const L = result.state;
    if (letter == '=')
        return result.lastArgument != 0 && IsSame(L, result.index, result.lastArgument);
    if (std::strchr("armi", letter) != nullptr && !lua_istable(L, result.index))
        return false;
    switch (letter) {
        case 'b':
            return lua_isboolean(L, result.index);
        case 'T':
            return lua_isboolean(L, result.index) && lua_toboolean(L, result.index) != 0;
        case 'n':
            return lua_type(L, result.index) == LUA_TNUMBER;
        case 'z':
            return lua_type(L, result.index) == LUA_TNUMBER && lua_tonumber(L, result.index) == 0;
        case 'a':
            return IsAction(L, result.index, result.badArguments);
        case 'r':
            return IsArrayOfRows(L, result.index, "count");
        case 'm':
            return IsMetrics(L, result.index);
        case 'i':
            return IsStringArray(L, result.index);
        default:
            return false;
    }
}

bool AreRight(std::string_view letters, const Result &first) {
    Result result = first;
    for (const char letter : letters) {
        if (!IsRight(letter, result))
            return false;
        ++result.index;
    }
    return true;
}

}  // namespace

const std::vector<SweptFunction> &SweptFunctions() {
    static const std::vector<SweptFunction> functions{
        {"AddToConnMetrics", {"'key'", kMetricText, "1"}, "ssn", "", 30},
        {"UpdateConnMetrics", {}, "", "", 8},
        {"GetConnMetrics", {}, "", "r", 6},
        {"CheckSystemHealthMetrics", {kDomValue, "'Deactivated'", kPolicy}, "", "a", 5},
        {"GetSysHealthMetrics", {}, "", "Tm", 8},
        {"GetSysHealthEnabled", {}, "", "b", 8},
        {"GetScanMetricPort", {}, "", "bn", 8},
        {"setup_qbtrace", {kHandleValue}, "h", "", 12},
        {"AddDriverDiagnostics", {kDomValue, kHandleValue, kZipValue}, "doz", "T", 1},
        {"GetDriverCheckedFromReg", {}, "", "n", 4},
        {"SetDriverCheckedToReg", {"1"}, "n", "=", 6},
        {"GetDriverHookedFromReg", {}, "", "n", 4},
        {"SetDriverHookedToReg", {"1"}, "n", "=", 6},
        {"GetUncheckedIfc", {}, "", "i", 4},
        {"SetUncheckedIfc", {kNames}, "t", "=", 6},
        {"GetDriverStoppedByBLPTimestamp", {}, "", "nn", 4},
        {"GetFileVersion", {kProgram}, "s", "nnnn|", 4},
        {"InstallOrUpdateDriver", {kDomValue, kNdisValue, kWfpValue}, "D", "b", 8, true},
        {"UninstallDriver", {kDomValue, kNdisValue, kWfpValue}, "D", "b", 8, true},
        {"StartWFPDriver", {"true"}, "", "b", 4},
        {"StopWFPDriver", {"true"}, "", "b", 4},
        {"RestartWFPDriver", {"true"}, "", "b", 4},
        {"StartNDISDriver", {"true"}, "", "b", 4},
        {"StopNDISDriver", {"true"}, "", "b", 4},
        {"RestartNDISDriver", {"true"}, "", "b", 4},
        {"EnableNativeFirewall", {}, "", "z", 4},
        {"DisableNativeFirewall", {}, "", "z", 4},
        {"WindowsFirewallAddApp", {kProgram, "'key'"}, "", "b", 4},
        {"WindowsFirewallRemoveApp", {kProgram}, "", "b", 4},
    };
    return functions;
}

SweptExpectation ExpectCall(const SweptFunction &function, lua_State *L, const std::vector<AgentKind> &kinds) {
    const int count = static_cast<int>(kinds.size());
    const int first = lua_gettop(L) - count + 1;
    const auto kindOf = [&](int number) {
        return number <= count ? kinds[static_cast<std::size_t>(number) - 1] : AgentKind::None;
    };
    SweptExpectation expected;
    for (int number = 1; function.takes[number - 1] != '\0' && expected.error.empty(); ++number)
        expected.error = ArgumentRule(function.takes[number - 1], {L, first + number - 1, number, kindOf(number)});
    expected.badArguments = !expected.error.empty();
    if (std::strcmp(function.results, "a") == 0)
        expected.badArguments = kindOf(1) != AgentKind::Dom || !BeginsWithAState(L, first + 1) || count < 3 ||
                                lua_type(L, first + 2) != LUA_TSTRING;
    return expected;
}

std::string ComplaintAbout(const SweptFunction &function, lua_State *L, int results, int lastArgument,
                           const SweptExpectation &expected) {
    const Result first{L, lua_gettop(L) - results + 1, lastArgument, expected.badArguments};
    std::string_view rest = function.results;
    for (;;) {
        const std::size_t bar = rest.find('|');
        const std::string_view letters = rest.substr(0, bar);
        if (static_cast<int>(letters.size()) == results && AreRight(letters, first))
            return "";
        if (bar == rest.npos)
            break;
        rest = rest.substr(bar + 1);
    }
    std::string complaint = std::to_string(results) + " results instead of '" + function.results + "':";
    for (int i = 0; i < results; ++i)
        complaint += std::string(" ") + luaL_typename(L, first.index + i);
    return complaint;
}
