#include "HealthBench.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include <windows.h>
#include <cJSON.h>

#include "HealthStubs.h"
#include "LuaBench.h"
#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

constexpr int kHealthRounds = 31;
constexpr int kIterations = 500;

// All thirteen values, as a policy and as a file.
constexpr char kPolicy[] = R"({
	"SYS_CONF_CONN_REFUSAL_PORT":	443,
	"SYS_CONF_CONN_REFUSAL_OUTBOUND":	1,
	"SYS_CONF_RECOVER_FACTOR":	80,
	"SYS_CONF_MIN_ACT_DURATION":	20,
	"SYS_CONF_MAX_ACT_DURATION":	200,
	"SYS_THR_CONN_REFUSAL_PCT":	{
		"value":	90
	},
	"SYS_THR_RUNQ":	{
		"value":	40
	},
	"SYS_THR_CONN_EST_PER_CPU":	{
		"value":	10000
	},
	"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU":	{
		"value":	1000
	},
	"SYS_THR_FREE_MEM":	{
		"value":	5
	},
	"SYS_THR_MAX_ITERATION_INVL":	{
		"value":	45
	},
	"SYS_CONF_UNLOAD_DRIVER":	0,
	"SYS_CONF_DISABLE_FAIL_OPEN":	0
})";
const std::vector<std::string> kFile = {
    "SYSTEM_CONNECTION_REFUSAL_PORT=443\n",
    "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=1\n",
    "SYSTEM_RECOVERY_FACTOR=80\n",
    "SYSTEM_MIN_ACT_DURATION=20\n",
    "SYSTEM_MAX_ACT_DURATION=200\n",
    "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=90\n",
    "SYSTEM_RUNQ_PCT_THRESHOLD=40\n",
    "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=10000\n",
    "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=1000\n",
    "SYSTEM_MIN_FREE_MEM_PCT=5\n",
    "SYSTEM_MAX_ITERATION_INTERVAL=45\n",
    "SYSTEM_UNLOAD_DRIVER=0.5\n",
    "SYSTEM_DISABLE_FAIL_OPEN=0.5\n",
};

double TimeParsingAndPrinting() {
    const double start = Now();
    for (int i = 0; i < kIterations; ++i) {
        cJSON *const json = cJSON_ParseWithOpts(kPolicy, nullptr, 0);
        char *const text = cJSON_Print(json);
        if (text == nullptr || std::string_view(text) != kPolicy)
            std::exit(2);  // the peer has to do the work, too
        cJSON_free(text);
        cJSON_Delete(json);
    }
    return Now() - start;
}

/// The parts of an iteration, in seconds.
struct Parts {
    std::vector<double> reading, output, untilSample, sampling, decision;

    void Add(const std::array<double, HealthStubs::kMarks> &at, double end) {
        reading.push_back(at[HealthStubs::ConfigClosed] - at[HealthStubs::Start]);
        output.push_back(at[HealthStubs::SampleBegun] - at[HealthStubs::ConfigClosed]);
        untilSample.push_back(at[HealthStubs::SampleBegun] - at[HealthStubs::Start]);
        sampling.push_back(at[HealthStubs::SampleEnded] - at[HealthStubs::SampleBegun]);
        decision.push_back(end - at[HealthStubs::SampleEnded]);
    }
};

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

Parts TakeParts(LuaBench &lua, const char *policy) {
    HealthStubs::State &state = HealthStubs::TheState();
    Parts parts;
    state.notesTimes = true;
    for (int i = 0; i < kIterations; ++i) {
        lua.Run(std::string("iterate(1, ") + policy + ")");
        parts.Add(state.times, Now());
    }
    state.notesTimes = false;
    return parts;
}

/// How the time of one isolated iteration is spent, as in the agent's loop.
void ReportParts(LuaBench &lua, Report &report) {
    const Parts file = TakeParts(lua, "''");
    const Parts policy = TakeParts(lua, "policy");
    const double output = Median(file.output);
    const double reading = Median(file.reading);
    const double parsing = Median(policy.untilSample) - output;
    const double sampling = Median(policy.sampling);
    const double decision = Median(policy.decision);
    const double share = 100 / (parsing + output + sampling + decision);
    report.Add("of an iteration with a policy: reading it", parsing * share, "percent");
    report.Add("of an iteration with a policy: JSON output", output * share, "percent");
    report.Add("of an iteration with a policy: sampling", sampling * share, "percent");
    report.Add("of an iteration with a policy: decision", decision * share, "percent");
    report.Add("reading the configuration file, to reading the policy", reading / parsing, "time ratio");
}

}  // namespace

void BenchHealth(Report &report) {
    LuaBench lua;
    lua.Run("require 'fc'");
    VtaCore::Control::Dom dom;
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    lua_setglobal(lua, "dom");
    lua_pushstring(lua, kPolicy);
    lua_setglobal(lua, "policy");
    lua.Run(R"(function iterate(times, policy)
        local check, dom = SLB.filter.CheckSystemHealthMetrics, dom
        for i = 1, times do assert(check(dom, 'Deactivated', policy).action == 0) end
    end)");
    HealthStubs::State &state = HealthStubs::TheState();
    state.configLines = kFile;
    const std::vector<Simulator::Redirection> stubs = HealthStubs::PutUnder(GetModuleHandleW(L"fc.dll"));

    const std::string many = std::to_string(kIterations);
    const auto times = MedianTimes(kHealthRounds, {[&] { return lua.Time("iterate(" + many + ", policy)"); },
                                                   [] { return TimeParsingAndPrinting(); }});
    report.Add("CheckSystemHealthMetrics, its own share, to parsing and printing its JSON", times[0] / times[1],
               "time ratio", "<= 2.0");
    report.Add("CheckSystemHealthMetrics, its own share, of the sample's 100 ms", times[0] / kIterations / 0.1 * 100,
               "percent");

    state.opened = state.written = 0;
    lua.Run("iterate(1, policy)");
    report.Add("files that an iteration with a policy opens", state.opened, "files", "<= 1");
    report.Add("texts that it writes", state.written, "texts", "<= 1");
    ReportParts(lua, report);
}
