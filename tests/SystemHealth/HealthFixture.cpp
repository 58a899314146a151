#include "HealthFixture.h"

#include <fstream>
#include <iterator>

#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

constexpr wchar_t kAgentFolder[] = L"Quillon/Vantry Agent";

}  // namespace

HealthFixture::HealthFixture() : ModuleFixture({.registry = false}) {
    Vti::Reset();
    simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
    const std::filesystem::path programData = simulation().GetFolders().ProgramData();
    simulation().GetFolders().MapPath(L"C:\\ProgramData", programData);
    std::filesystem::create_directories(programData / kAgentFolder / L"filter");
    std::filesystem::create_directories(programData / kAgentFolder / L"diag");

    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    lua_setglobal(lua, "dom");
    lua.Run("f = SLB.filter");

    wxLog::SetVerbose(true);
    VtaCore::Control::EnableTrace("*", true);
    (void)VtaCore::Control::TakeTraces();
    (void)simulation().GetJournal().Take();
}

HealthFixture::~HealthFixture() {
    VtaCore::Control::EnableTrace("*", false);
    (void)VtaCore::Control::TakeTraces();
    wxLog::SetVerbose(false);
    Vti::Reset();
}

int HealthFixture::Check(const std::string &state, const std::string &policy) {
    lua_pushlstring(lua, state.data(), state.size());
    lua_setglobal(lua, "state");
    lua_pushlstring(lua, policy.data(), policy.size());
    lua_setglobal(lua, "policy");
    lua.Run(R"(
        local results = table.pack(f.CheckSystemHealthMetrics(dom, state, policy))
        assert(results.n == 1 and type(results[1]) == 'table')
        assert(next(results[1]) == 'action' and next(results[1], 'action') == nil)
        action = results[1].action)");
    const int action = std::stoi(lua.Eval("action or -1"));
    lua.Run("action = nil");
    return action;
}

std::filesystem::path HealthFixture::ConfigPath() {
    return simulation().GetFolders().ProgramData() / kAgentFolder / L"filter" / L"vt_filter.conf";
}

std::filesystem::path HealthFixture::JsonPath() {
    return simulation().GetFolders().ProgramData() / kAgentFolder / L"diag" / L"vt_filter_json.log";
}

void HealthFixture::WriteConfig(const std::string &text) {
    std::ofstream file(ConfigPath(), std::ios::binary);
    file << text;
    ASSERT_TRUE(file.flush());
}

void HealthFixture::RemoveConfig() {
    std::filesystem::remove(ConfigPath());
}

std::string HealthFixture::WrittenJson() {
    std::ifstream file(JsonPath(), std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

void HealthFixture::RemoveWrittenJson() {
    std::filesystem::remove(JsonPath());
}

std::vector<ReadOut> HealthFixture::Metrics() {
    lua.Run("done, metrics = f.GetSysHealthMetrics() assert(done == true and #metrics == 7)");
    std::vector<ReadOut> metrics;
    for (int i = 1; i <= 6; ++i) {
        const std::string row = "metrics[" + std::to_string(i) + "].";
        metrics.push_back({lua.Eval(row + "name"), std::stoll(lua.Eval("('%d'):format(" + row + "value)")),
                           std::stoll(lua.Eval("('%d'):format(" + row + "threshold)"))});
    }
    return metrics;
}

ReadOut HealthFixture::Metric(const std::string &shortName) {
    for (const ReadOut &metric : Metrics())
        if (metric.name == shortName)
            return metric;
    ADD_FAILURE() << "there is no metric " << shortName;
    return {};
}

std::string HealthFixture::Setting(const std::string &key) const {
    return dom.SettingRetrieve(wxString::FromUTF8(key)).utf8_string();
}

std::string HealthFixture::Flag(const std::string &key) const {
    bool flag = true;
    const bool isTrue = dom.Get(key.c_str(), flag) && flag;
    flag = false;
    const bool found = dom.Get(key.c_str(), flag);
    return found ? (isTrue ? "true" : "false") : "unset";
}
