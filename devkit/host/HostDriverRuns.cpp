// What became of installations and removals of the drivers, for scripts.
#include "HostState.h"

#include "DriverOutcome.h"
#include "LuaEdge.h"

namespace {

/// One for Lua, whose texts are made before, since an error in Lua would jump over them.
struct Record {
    DriverRun run;
    DriverOutcome outcome;
    std::string text;
    std::string log;
};

Record MakeRecord(DriverRun run) {
    Record record{.run = std::move(run), .outcome = {}, .text = {}, .log = {}};
    record.outcome = OutcomeOf(record.run);
    record.text = OutcomeText(record.run);
    for (const LoggedLine &line : record.run.log)
        record.log += line.text + "\n";
    return record;
}

void SetText(lua_State *L, const char *name, const std::string &text) {
    if (!text.empty())
        SetField(L, name, std::string_view(text));
}

void SetText(lua_State *L, const char *name, const std::optional<std::string> &text) {
    if (text)
        SetField(L, name, std::string_view(*text));
}

void PushStep(lua_State *L, const DriverStep &step) {
    lua_newtable(L);
    SetField(L, "name", std::string_view(step.name));
    SetField(L, "depth", static_cast<int>(step.depth));
    SetNumber(L, "begin", step.begin);
    if (step.limit != 0)
        SetNumber(L, "limit", step.limit);
    if (step.end)
        SetNumber(L, "seconds", *step.end - step.begin);
    SetFlag(L, "killed", step.killed);
    SetFlag(L, "failed", step.failed);
}

void PushFailure(lua_State *L, const DriverFailure &failure) {
    lua_newtable(L);
    SetField(L, "call", std::string_view(failure.call));
    SetField(L, "step", std::string_view(failure.step));
    SetNumber(L, "code", failure.code);
}

void PushStateAdapter(lua_State *L, const DriverState::Adapter &adapter) {
    lua_newtable(L);
    SetField(L, "node", std::string_view(adapter.node));
    SetField(L, "name", std::string_view(adapter.name));
    SetFlag(L, "bound", adapter.isBound);
}

void SetState(lua_State *L, const DriverState &state) {
    lua_newtable(L);
    SetText(L, "driver", state.driver);
    if (state.hasMachine) {
        SetFlag(L, "filter", state.hasFilter);
        SetText(L, "callout", state.callout);
        SetText(L, "lock", state.lock);
        PushItems(L, state.adapters, PushStateAdapter);
        lua_setfield(L, -2, "adapters");
    }
    lua_setfield(L, -2, "state");
}

void SetOutcome(lua_State *L, const DriverOutcome &outcome) {
    SetField(L, "outcome", std::string_view(OutcomeName(outcome.what)));
    SetText(L, "step", outcome.step);
    if (outcome.cause) {
        SetField(L, "call", std::string_view(outcome.cause->call));
        SetNumber(L, "code", outcome.cause->code);
    }
    if (outcome.killedAfter)
        SetNumber(L, "killed", *outcome.killedAfter);
    if (outcome.notKilledAfter)
        SetNumber(L, "not_killed", *outcome.notKilledAfter);
    SetFlag(L, "reboot", outcome.needsReboot);
    SetFlag(L, "callout_left", outcome.isCalloutLeft);
    SetFlag(L, "filter_left", outcome.isFilterLeft);
}

void PushRecord(lua_State *L, const Record &record) {
    const DriverRun &run = record.run;
    lua_newtable(L);
    const bool isInstallation = run.kind == DriverRun::Kind::Installation;
    SetField(L, "kind", std::string_view(isInstallation ? "installation" : "removal"));
    SetOutcome(L, record.outcome);
    SetField(L, "text", std::string_view(record.text));
    SetText(L, "from", run.from);
    SetText(L, "to", run.to);
    SetNumber(L, "begin", run.begin);
    if (run.end)
        SetNumber(L, "seconds", *run.end - run.begin);
    if (run.result)
        SetFlag(L, "result", *run.result);
    PushItems(L, run.steps, PushStep);
    lua_setfield(L, -2, "steps");
    PushItems(L, run.failures, PushFailure);
    lua_setfield(L, -2, "failures");
    SetField(L, "log", std::string_view(record.log));
    SetText(L, "stack", run.stack);
    if (run.state)
        SetState(L, *run.state);
}

/// Lua: array = host.installations(). Installations and removals of the drivers, oldest first.
int GetInstallations(lua_State *L) {
    bool pushed = false;
    {
        std::vector<Record> records;
        for (DriverRun &run : HostOf(L).runs.All())
            records.push_back(MakeRecord(std::move(run)));
        pushed = PushArray(L, records, PushRecord);
    }
    return pushed ? 1 : lua_error(L);
}

}  // namespace

void AddDriverRunFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {{"installations", GetInstallations}, {nullptr, nullptr}};
    AddFunctions(L, host, functions);
}
