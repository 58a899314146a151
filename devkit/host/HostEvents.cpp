// Events, traces and the log, for scripts.
#include "HostState.h"

#include "LuaEdge.h"
#include "Text.h"
#include "TraceComponents.h"
#include "UnknownName.h"

namespace {

void PushEvent(lua_State *L, const HostEvent &event) {
    lua_newtable(L);
    SetField(L, "kind", std::string_view(KindName(event.kind)));
    SetNumber(L, "time", event.time);
    SetField(L, "number", event.number);
    SetField(L, "text", event.text);
    if (event.kind == HostEvent::Kind::Event) {
        SetField(L, "log_id", event.logId);
        SetField(L, "format", event.format);
    } else {
        SetField(L, "detail", event.detail);
    }
}

/// A trace line in UTF-8.
struct Trace {
    double time;
    std::string component;
    std::string file;
    int line;
    std::string function;
    std::string message;
};

void PushTrace(lua_State *L, const Trace &trace) {
    lua_newtable(L);
    SetNumber(L, "time", trace.time);
    SetField(L, "component", trace.component);
    SetField(L, "file", trace.file);
    SetField(L, "line", trace.line);
    SetField(L, "function", trace.function);
    SetField(L, "message", trace.message);
}

std::vector<Trace> TakeTraces() {
    std::vector<Trace> traces;
    for (const VtaCore::Control::TraceLine &trace : VtaCore::Control::TakeTraces())
        traces.push_back(
            {trace.time, ToUtf8(trace.component), trace.file, trace.line, trace.function, ToUtf8(trace.message)});
    return traces;
}

/// Lua: array = host.events(). Events and notifications since the last call, oldest first.
int GetEvents(lua_State *L) {
    bool pushed = false;
    {
        const std::vector<HostEvent> events = HostOf(L).events.TakeNew();
        pushed = PushArray(L, events, PushEvent);
    }
    return pushed ? 1 : lua_error(L);
}

/// Lua: array = host.traces(). Trace lines since the last call, oldest first.
int GetTraces(lua_State *L) {
    bool pushed = false;
    {
        const std::vector<Trace> traces = TakeTraces();
        pushed = PushArray(L, traces, PushTrace);
    }
    return pushed ? 1 : lua_error(L);
}

void PushLoggedLine(lua_State *L, const LoggedLine &line) {
    lua_newtable(L);
    SetField(L, "level", std::string_view(line.level));
    SetField(L, "text", line.text);
    SetNumber(L, "time", line.time);
}

/// Lua: array = host.log(). Log lines since the last call, oldest first.
int GetLog(lua_State *L) {
    bool pushed = false;
    {
        const std::vector<LoggedLine> lines = HostOf(L).log->TakeLines();
        pushed = PushArray(L, lines, PushLoggedLine);
    }
    return pushed ? 1 : lua_error(L);
}

/// Lua: host.set_verbose_log(wanted)
int SetVerboseLog(lua_State *L) {
    luaL_checktype(L, 1, LUA_TBOOLEAN);
    HostOf(L).log->WantVerbose(lua_toboolean(L, 1) != 0);
    return 0;
}

/// Lua: host.set_trace(component, wanted). "*" stands for all components.
int SetTrace(lua_State *L) {
    const std::string_view component = CheckText(L, 1);
    luaL_checktype(L, 2, LUA_TBOOLEAN);
    if (IsMisspeltTraceComponent(component))
        return RaiseUnknownName(L, "there is no trace component", component, ModuleTraceComponents);
    const bool wanted = lua_toboolean(L, 2) != 0;
    luaL_where(L, 1);
    VtaCore::Control::EnableTrace(wxString(ToWide(component)), wanted);
    if (wanted)
        NoteWantedTrace(HostOf(L), lua_tostring(L, -1), std::string(component));
    return 0;
}

/// Lua: host.trace(component, text). A trace line of the script, if the component's trace is enabled.
int WriteTrace(lua_State *L) {
    const std::string_view component = CheckText(L, 1);
    const std::string_view text = CheckText(L, 2);
    lua_Debug caller{};
    if (lua_getstack(L, 1, &caller) != 0)
        (void)lua_getinfo(L, "Sl", &caller);
    HostOf(L).tracedByScript.emplace(component);
    const wxString name(ToWide(component));
    if (VtaCore::LogTraceIsEnabled(name))
        VtaCore::LogTrace(name, caller.short_src, caller.currentline, "script", wxString(ToWide(text)));
    return 0;
}

/// Lua: host.send_event(number, text). An event as other parts of the agent send them.
int SendEvent(lua_State *L) {
    const int number = static_cast<int>(luaL_checkinteger(L, 1));
    const std::string_view text = CheckText(L, 2);
    HostOf(L).dom->DoAgentEventWrite(number, L"%s", ToWide(text).c_str());
    return 0;
}

/// Lua: host.notify_user(severity, text, detail). A notification as other parts of the agent show them.
int NotifyUser(lua_State *L) {
    const int severity = static_cast<int>(luaL_checkinteger(L, 1));
    const std::string_view text = CheckText(L, 2);
    const std::string_view detail = CheckText(L, 3);
    VtaCore::ShowUserNotification(severity, wxString(ToWide(text)), wxString(ToWide(detail)));
    return 0;
}

}  // namespace

void NoteWantedTrace(HostState &host, const std::string &where, const std::string &component) {
    if (component == "*" || IsModuleTraceComponent(component))
        return;
    host.plans.Add(UnusedPlans::Kind::Trace, [&host, text = where + "nobody traced as " + component, component] {
        return host.tracedByScript.contains(component) ? std::string() : text;
    });
}

void AddEventFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"events", GetEvents},     {"traces", GetTraces},
        {"set_trace", SetTrace},   {"trace", WriteTrace},
        {"send_event", SendEvent}, {"notify_user", NotifyUser},
        {"log", GetLog},           {"set_verbose_log", SetVerboseLog},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
