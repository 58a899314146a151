#include "SweepValues.h"

#include <cstring>
#include <mutex>
#include <stdexcept>

#include "slb3_control.h"
#include "vti_control.h"

namespace {

constexpr char kDomType[] = "SLB.Dom";
constexpr char kZipType[] = "SLB.wx.ZipOutputStream";
constexpr char kHandleType[] = "vti_handle_t*";

/// What Lua can express as source.
constexpr const char *kWritten[] = {
    "nil", "true", "false",
    // numbers
    "0", "-0.0", "1", "-1", "0.5", "1.9", "-1.9", "62", "0/0", "1/0", "-1/0", "2^31-1", "2^31", "-2^31", "-2^31-1",
    "2^32-1", "2^32", "2^53", "-2^53", "2^63", "-2^63", "1e308", "1e-320",
    // strings that are numbers, and some that almost are
    "'1'", "'0x10'", "' 12 '", "'-1.9'", "'1e400'", "'nan'", "'12abc'",
    // strings of few characters, of many, of invalid ones
    "''", "' '", "'key'", R"('a\0b')", R"('\0')", R"('\xFF\xFE')", R"('\xED\xA0\x80')", R"('\xC0\x80')", R"('\xC3')",
    R"('\xF4\x90\x80\x80')", R"('\xC3\xA4')", R"('\xF0\x9F\x98\x80')", "'%s%n%d%'", "('x'):rep(100000)",
    R"(('\xC3\xA4'):rep(5000))", R"(('\xE4'):rep(5000))", R"(('\n\t'):rep(1000))", "('['):rep(3000)", "'a,b,,c'",
    // what some function accepts
    kMetricText, "'Activated'", "'Deactivated'", "'Deactivated?'", kPolicy, R"('{"SYS_THR_RUNQ": {"value": 1e999}}')",
    // paths
    kProgram, R"([[C:\no\such\folder\file.sys]])", R"([[C:\]])", R"([[..\..\]])", "'NUL'", R"('<>|*?"')",
    R"([[\\?\C:\]])",
    // tables
    "{}", kNames, R"({1, 2.5, false, {}, 'a,b', '\xFF', 'c\0d', print})", "{[1] = 'a', [3] = 'c', n = 7}",
    "{('x'):rep(20000), ('y'):rep(20000)}",
    "(function() local t = {} for i = 1, 2000 do t[i] = 'if' .. i end return t end)()",
    "(function() local t = {} t[1] = t return setmetatable(t, t) end)()",
    R"(setmetatable({'a'}, {__index = error, __newindex = error, __len = error, __tostring = error, __call = error,
                            __concat = error, __eq = error, __unm = error, __metatable = false}))",
    // functions and coroutines
    "print", "function() error('called') end", "SLB.filter.GetConnMetrics", "coroutine.create(print)",
    "coroutine.wrap(print)", "(function() local c = coroutine.create(print) coroutine.resume(c, '') return c end)()",
    "(coroutine.running())",
    // userdata of the standard library
    "io.stdout"};

void PushWritten(lua_State *L, const std::string &expression) {
    if (luaL_dostring(L, ("return " + expression).c_str()) != 0)
        throw std::logic_error("no value: " + expression);
}

SweepValue Written(const std::string &expression) {
    return {expression, [expression](lua_State *L) { PushWritten(L, expression); }};
}

SweepValue Text(const std::string &name, const std::string &text) {
    return {name, [text](lua_State *L) { lua_pushlstring(L, text.data(), text.size()); }};
}

SweepValue LightUserdata(const std::string &name, void *pointer) {
    return {name, [pointer](lua_State *L) { lua_pushlightuserdata(L, pointer); }};
}

SweepValue Userdata(std::size_t size, unsigned char filling) {
    const std::string name = "userdata of " + std::to_string(size) + " bytes of " + std::to_string(filling);
    return {name, [size, filling](lua_State *L) { std::memset(lua_newuserdata(L, size), filling, size); }};
}

SweepValue Handle(const std::string &name, vti_handle_t *handle, AgentKind kind, std::size_t size = sizeof(void *)) {
    const auto push = [handle, size](lua_State *L) {
        std::memcpy(lua_newuserdata(L, size), &handle, size);
        luaL_newmetatable(L, kHandleType);
        lua_setmetatable(L, -2);
    };
    return {name, push, kind};
}

SweepValue Instance(const std::string &name, const char *type, void *object, AgentKind kind, bool isConst = false,
                    const SLB3::SlbBaseEntry *bases = nullptr) {
    const auto push = [=](lua_State *L) { SLB3::Control::PushInstance(L, type, object, isConst, bases); };
    return {name, push, kind};
}

SweepValue GoneInstance(const std::string &name, const char *type, void *object) {
    const auto push = [=](lua_State *L) {
        SLB3::Control::PushInstance(L, type, object);
        SLB3::Control::ForgetObject(L, -1);
    };
    return {name, push};
}

/// The derived class and its base have the same address.
void *SameObject(void *object) {
    return object;
}

}  // namespace

SweepObjects::SweepObjects(VtaCore::CDom &dom)
    : m_dom(dom), m_bases{{"SLB.Other", 1, &SameObject}, {kDomType, 1, &SameObject}, {nullptr, 0, nullptr}} {
    RenewZip();
    (void)m_closedZip.Close();
    {
        const std::lock_guard lock(Vti::Lock());
        Vti::TheDriver().present = true;
    }
    m_handle = vti_open();
    m_lostHandle = vti_open();
    vti_close(m_lostHandle);
    if (m_handle == nullptr)
        throw std::logic_error("the driver can't be opened");
}

SweepObjects::~SweepObjects() {
    vti_close(m_handle);
}

void SweepObjects::RenewZip() {
    m_zip.reset();
    m_memory.emplace();
    m_zip.emplace(*m_memory);
}

std::vector<SweepValue> SweepObjects::Values(const std::string &ndis, const std::string &wfp) {
    std::vector<SweepValue> values;
    for (const char *expression : kWritten)
        values.push_back(Written(expression));
    values.push_back(Text(kNdisValue, ndis));
    values.push_back(Text(kWfpValue, wfp));
    values.push_back(LightUserdata("light userdata of nothing", nullptr));
    values.push_back(LightUserdata("light userdata of 1", reinterpret_cast<void *>(1)));
    values.push_back(LightUserdata("light userdata of a dom", &m_dom));
    for (const std::size_t size : {0U, 1U, 8U, 31U})
        values.push_back(Userdata(size, 0xFF));
    for (const std::size_t size : {8U, 32U, 40U, 4096U})
        values.push_back(Userdata(size, 0));
    AddInstances(values);
    AddZips(values);
    AddHandles(values);
    return values;
}

void SweepObjects::AddInstances(std::vector<SweepValue> &values) {
    values.push_back(Instance(kDomValue, kDomType, &m_dom, AgentKind::Dom));
    values.push_back(Instance("derived dom", "SLB.DerivedDom", &m_dom, AgentKind::Dom, false, m_bases.data()));
    values.push_back(Instance("const dom", kDomType, &m_dom, AgentKind::None, true));
    values.push_back(GoneInstance("dom that is gone", kDomType, &m_dom));
    values.push_back(Instance("something else", "SLB.Other", &m_dom, AgentKind::None));
}

void SweepObjects::AddZips(std::vector<SweepValue> &values) {
    values.push_back(Instance(kZipValue, kZipType, &m_zip.value(), AgentKind::Zip));
    values.push_back(Instance("closed zip", kZipType, &m_closedZip, AgentKind::Zip));
    values.push_back(Instance("zip on a full disk", kZipType, &m_fullZip, AgentKind::Zip));
    values.push_back(Instance("const zip", kZipType, &m_zip.value(), AgentKind::None, true));
    values.push_back(GoneInstance("zip that is gone", kZipType, &m_zip.value()));
}

void SweepObjects::AddHandles(std::vector<SweepValue> &values) {
    values.push_back(Handle(kHandleValue, m_handle, AgentKind::Handle));
    values.push_back(Handle("handle that was closed elsewhere", m_lostHandle, AgentKind::Handle));
    values.push_back(Handle("closed handle", nullptr, AgentKind::ClosedHandle));
    values.push_back(Handle("half a handle", m_handle, AgentKind::None, sizeof(void *) / 2));
    const auto tableWithMetatable = [](lua_State *L) {
        lua_newtable(L);
        luaL_newmetatable(L, kHandleType);
        lua_setmetatable(L, -2);
    };
    values.push_back({"table with the handle's metatable", tableWithMetatable});
}
