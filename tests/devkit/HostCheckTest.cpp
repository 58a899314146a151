// host.check_policy, host.check_config and the options of the same names: what they answer, and that the module does
// it.
#include <memory>
#include <string_view>
#include <utility>

#include <gtest/gtest.h>
#include <lua.hpp>

#include "HostProcess.h"
#include "PolicyCheck.h"
#include "Resource.h"

namespace {

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// Runs a script whose assertions are the test's; it may use `only_problem`, which yields the problem of an answer.
void ExpectPasses(const std::string &script, const std::vector<std::wstring> &options = {L"--quiet"}) {
    const HostRun run = RunScript(R"(
        local function problem_text(problem)
            return problem.line .. ":" .. problem.column .. " " .. (problem.key or "") .. ": " .. problem.text
        end
        local function only_problem(answer)
            assert(#answer.problems == 1 and not answer.ok and not answer.unexplained, #answer.problems)
            return problem_text(answer.problems[1])
        end
        local function same(actual, expected)
            assert(actual == expected, tostring(actual))
        end
    )" + script,
                                  options);
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

/// Random and hostile texts: random_policy() and random_config().
constexpr const char *kRandomTexts = R"lua(
local POLICY_KEYS = {
    "SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_CONN_REFUSAL_OUTBOUND", "SYS_CONF_RECOVER_FACTOR", "SYS_CONF_MIN_ACT_DURATION",
    "SYS_CONF_MAX_ACT_DURATION", "SYS_THR_CONN_REFUSAL_PCT", "SYS_THR_RUNQ", "SYS_THR_CONN_EST_PER_CPU",
    "SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU", "SYS_THR_FREE_MEM", "SYS_THR_MAX_ITERATION_INVL", "SYS_CONF_UNLOAD_DRIVER",
    "SYS_CONF_DISABLE_FAIL_OPEN",
}
local FILE_KEYS = {
    "SYSTEM_CONNECTION_REFUSAL_PORT", "SYSTEM_CONNECTION_REFUSAL_OUTBOUND", "SYSTEM_RECOVERY_FACTOR",
    "SYSTEM_MIN_ACT_DURATION", "SYSTEM_MAX_ACT_DURATION", "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD",
    "SYSTEM_RUNQ_PCT_THRESHOLD", "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU", "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU",
    "SYSTEM_MIN_FREE_MEM_PCT", "SYSTEM_MAX_ITERATION_INTERVAL", "SYSTEM_UNLOAD_DRIVER", "SYSTEM_DISABLE_FAIL_OPEN",
}
local NUMBERS = { "0", "1", "5", "20", "25", "30", "-1", "0.5", "30.0001", "1e3", "1E-3", "1e400", "-0", "65535", "65536",
    "12.5", "240", "241", "0.1e1", "01", "1.", "-", "1.2.3", "0x10", "NaN", "inf", "+5", "-.5", "1e", ".5", "" }

local function pick(list)
    return list[math.random(#list)]
end

local function chance(percent)
    return math.random(100) <= percent
end

local function number()
    return chance(70) and tostring(math.random(0, 70000) / pick { 1, 1, 100, 1000 }) or pick(NUMBERS)
end

local function blanks()
    return chance(85) and "" or pick { " ", "\n", "\t", "\r\n", "\1" }
end

local function text_of(text)
    return '"' .. text .. '"'
end

local function key_of(keys)
    local key = pick(keys)
    if chance(10) then
        key = key:lower()
    elseif chance(8) then
        local at = math.random(#key)
        key = key:sub(1, at - 1) .. pick { "", "X", "_", "\\u0053", "\\n", "\\x" } .. key:sub(at + 1)
    elseif chance(3) then
        key = key .. pick { "\\u0000", "\\ud83d\\ude00", "\\ud83d", "\\udc00", "\195\164", " " }
    end
    return key
end

local value

local function object(depth)
    local members = {}
    for i = 1, math.random(0, 2) do
        members[i] = text_of(pick { "value", "value", "Value", "vaule", "x" }) .. blanks() .. ":" .. value(depth + 1)
    end
    return "{" .. blanks() .. table.concat(members, ",") .. blanks() .. "}"
end

function value(depth)
    local kind = depth > 3 and 1 or math.random(12)
    local plain = blanks() .. number() .. blanks()
    if kind <= 4 then
        return plain
    elseif kind <= 8 then
        return '{"value":' .. plain .. "}"
    elseif kind == 9 then
        return text_of(number())
    elseif kind == 10 then
        return pick { "null", "true", "false", "[]", "[1]", "[1,]", "nul", "True" }
    end
    return object(depth)
end

local function damage(text)
    local at = math.random(math.max(1, #text))
    return pick {
        text:sub(1, at), text:sub(1, at - 1) .. string.char(math.random(0, 255)) .. text:sub(at + 1), "\239\187\191" .. text,
        text .. " behind", text .. text, text:gsub('"', "'"), "// comment\n" .. text, text:gsub("}$", ",}"), "[" .. text .. "]",
        text .. "\0x", text:sub(1, at - 1) .. text:sub(at + 1), ("["):rep(999 + math.random(3)) .. "1" .. ("]"):rep(1002),
        '{"SYS_CONF_RECOVER_FACTOR":' .. ("1"):rep(65535 + math.random(2)) .. "}", "", " ", '"' .. at .. '"',
    }
end

function random_policy()
    local members = {}
    for i = 1, math.random(0, 8) do
        members[i] = blanks() .. text_of(key_of(POLICY_KEYS)) .. blanks() .. ":" .. value(1)
    end
    local text = "{" .. table.concat(members, ",") .. blanks() .. "}"
    return chance(30) and damage(text) or text
end

function random_config()
    local lines = {}
    for i = 1, math.random(0, 8) do
        local key = chance(85) and pick(FILE_KEYS) or key_of(pick { FILE_KEYS, POLICY_KEYS })
        local line = key .. pick { "=", "=", "=", "=", "=", " =", "" } .. number()
        lines[i] = pick { "", "", "", "", "", "", "", "", " ", "#", "\239\187\191", "x", "[", ("="):rep(1015) } .. line ..
            pick { "", "", "", "", "", " # why", ",5", '"', "\t", "\r", "\0", ("0"):rep(1100), "\26", (" "):rep(1020) .. line } ..
            pick { "\n", "\n", "\r\n", "\r\n", "\r", "" }
    end
    return table.concat(lines)
end
)lua";

/// Checks texts of the kind, and hands each to the script's own module. An iteration ends where it asks for the run
/// queue.
constexpr const char *kCompare = R"lua(
    local function number_values(json)
        local values = {}
        for key, value in pairs(json) do
            values[key] = type(value) == "table" and value.value or value
        end
        return values
    end

    local function assert_same(actual, expected, what, text)
        for key, value in pairs(actual) do
            assert(expected[key] == value, ("%s: %s = %s: %q"):format(what, key, tostring(value), text))
        end
        for key in pairs(expected) do
            assert(actual[key] ~= nil, ("%s: no %s: %q"):format(what, key, text))
        end
    end

    local folder = os.getenv("TEMP") .. "/fc-check-test"
    local function write_config(text)
        local file = assert(io.open(folder .. "/filter/vt_filter.conf", "wb"))
        file:write(text)
        file:close()
    end

    local function do_it(text, is_policy)
        if not is_policy then
            write_config(text)
        end
        local action = SLB.filter.CheckSystemHealthMetrics(host.dom(), "Deactivated", is_policy and text or "").action
        return action, number_values(host.read_json(folder .. "/diag/vt_filter_json.log"))
    end

    -- By their keys in a policy; of a key that a file has twice, the later value counts.
    local function taken_values(answer)
        local values, policy_keys = {}, {}
        for i, key in ipairs(FILE_KEYS) do
            policy_keys[key] = POLICY_KEYS[i]
        end
        for _, taken in ipairs(answer.taken) do
            values[policy_keys[taken.key] or taken.key] = taken.value
        end
        return values
    end

    function compare(texts, check, is_policy)
        host.use_program_data(folder)
        write_config ""
        host.fault { call = "PdhOpenQueryW", fail = 5 }
        require "fc"
        local taken, refused = 0, 0
        for i, answer in ipairs(check(texts)) do
            local action, values = do_it(texts[i], is_policy)
            assert(not answer.unexplained, ("unexplained: %q"):format(texts[i]))
            assert(answer.off == (action == 2), ("action %d: %q"):format(action, texts[i]))
            assert_same(answer.values, values, "values", texts[i])
            assert_same(taken_values(answer), values, "taken", texts[i])
            taken, refused = taken + #answer.taken, refused + #answer.problems
        end
        assert(taken > #texts / 10 and refused > #texts / 10, taken .. " taken, " .. refused .. " problems")
    end
)lua";

/// So many texts of each seed, all in one process: its start takes longer than many texts.
void ExpectTheModuleDoesTheSame(int seeds, const std::string &kind) {
    const HostRun run = RunScript(
        std::string(kRandomTexts) + kCompare + "local texts = {} for seed = 1, " + std::to_string(seeds) +
            " do math.randomseed(seed) for i = 1, 250 do texts[#texts + 1] = random_" + kind +
            "() end end compare(texts, host.check_" + kind + ", " + (kind == "policy" ? "true" : "false") + ")",
        {L"--quiet", L"--fast", L"50"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

struct CloseLua {
    void operator()(lua_State *L) const { lua_close(L); }
};

/// Runs a script whose assertions are the test's, and that may require the check's own files.
void ExpectPassesWithTheChecksFiles(const std::string &script) {
    const std::unique_ptr<lua_State, CloseLua> L(luaL_newstate());
    luaL_openlibs(L.get());
    lua_getglobal(L.get(), "package");
    lua_getfield(L.get(), -1, "preload");
    constexpr std::pair<const char *, const wchar_t *> files[] = {{"answer", L"CHECK_ANSWER"},
                                                                  {"texts", L"CHECK_TEXTS"}};
    for (const auto &[name, resource] : files) {
        std::string error;
        const std::string_view file = Resource(resource, error);
        ASSERT_EQ(luaL_loadbuffer(L.get(), file.data(), file.size(), name), LUA_OK) << error;
        lua_setfield(L.get(), -2, name);
    }
    EXPECT_EQ(luaL_dostring(L.get(), script.c_str()), LUA_OK) << lua_tostring(L.get(), -1);
}

}  // namespace

TEST(HostCheck, SaysWithItsPlaceWhatTheModuleDoesNotTake) {
    ExpectPasses(R"lua(
        local function policy(text)
            return only_problem(host.check_policy(text))
        end
        same(policy '{\n  "SYS_THR_RUNQUEUE": { "value": 1 } }', '2:3 SYS_THR_RUNQUEUE: there is no such key; the nearest is SYS_THR_RUNQ')
        same(policy '{ "SYS_THR_RUNQ": 50 }',
            '1:19 SYS_THR_RUNQ: a bare number is left out: a threshold is written { "value": 50 }')
        same(policy '{ "SYS_THR_RUNQ": { "value": "50" } }',
            '1:30 SYS_THR_RUNQ: a text in quotes is left out: a number without quotes is expected')
        same(policy '{ "SYS_THR_RUNQ": { "value": 200.5 } }', '1:30 SYS_THR_RUNQ: 200.5 is above the maximum, 200')
        same(policy '{ "SYS_THR_RUNQ": { "value": 0 } }', '1:30 SYS_THR_RUNQ: a threshold has to be above 0')
        same(policy '{ "SYSTEM_RUNQ_PCT_THRESHOLD": 5 }',
            '1:3 SYSTEM_RUNQ_PCT_THRESHOLD: this is a key of vt_filter.conf; in a policy it is SYS_THR_RUNQ')
        same(policy '{ "SYS_CONF_RECOVER_FACTOR": -1 }', '1:30 SYS_CONF_RECOVER_FACTOR: -1 is below 0')
        same(policy '{ "SYS_CONF_MAX_ACT_DURATION": 5, "SYS_CONF_MIN_ACT_DURATION": 10 }',
            '1:32 SYS_CONF_MAX_ACT_DURATION: 5 is below the first wait of 10 minutes, and discarded, so that the default applies')
        same(policy '{ "SYS_THR_RUNQ": { "value": 5 }, }',
            '1:33 : there is a comma behind the last member, which JSON does not have; text that is no JSON sets nothing')
        same(policy '', '1:1 : an empty policy stands for none: the module reads vt_filter.conf instead')
    )lua");
}

TEST(HostCheck, SaysWhatOfATakenValueMaySurprise) {
    ExpectPasses(R"lua(
        local function policy(text)
            local answer = host.check_policy(text)
            same(#answer.taken, 1)
            return problem_text(answer.problems[#answer.problems]), answer
        end
        same((policy '{ "SYS_CONF_CONN_REFUSAL_PORT": "443" }'),
            '1:33 SYS_CONF_CONN_REFUSAL_PORT: a text in quotes counts as 0: a number without quotes is expected')
        same((policy '{ "SYS_CONF_MIN_ACT_DURATION": 0.5 }'), '1:32 SYS_CONF_MIN_ACT_DURATION: 0.5 minutes count as 0: ' ..
            'there is no wait, and every call in fail-open is a recovery check')
        same((policy '{ "SYS_CONF_MIN_ACT_DURATION": 2.5 }'), '1:32 SYS_CONF_MIN_ACT_DURATION: 2.5 is cut to 2')
        same((policy '{ "SYS_CONF_UNLOAD_DRIVER": 0.5 }'),
            '1:29 SYS_CONF_UNLOAD_DRIVER: 0.5 does nothing: only 1 switches this on')
        local text, answer = policy '{ "SYS_CONF_RECOVER_FACTOR": 0 }'
        same(text, '1:30 SYS_CONF_RECOVER_FACTOR: a factor of 0 keeps the host in fail-open for good: every limit of a ' ..
            'recovery check is 0')
        same(answer.effect[2], "Once in fail-open, the host never comes back.")
    )lua");
}

TEST(HostCheck, SaysTheSameOfAConfigurationFile) {
    ExpectPasses(R"lua(
        local function config(text)
            return only_problem(host.check_config(text))
        end
        same(config "\239\187\191SYSTEM_RUNQ_PCT_THRESHOLD=50\n", "1:1 SYSTEM_RUNQ_PCT_THRESHOLD: a byte order mark stands " ..
            "before the key, so that it is not found: save the file without one")
        same(config "# a comment\r\n system_runq_treshold=1\r\n", "2:1 system_runq_treshold: there is no such key; the nearest is SYSTEM_RUNQ_PCT_THRESHOLD")
        same(config " SYSTEM_RECOVERY_FACTOR=1", "1:1 SYSTEM_RECOVERY_FACTOR: the key has to stand at the very beginning of its line")
        same(config "SYSTEM_MIN_FREE_MEM_PCT=26", "1:25 SYSTEM_MIN_FREE_MEM_PCT: 26 is above the maximum, 25")
        same(config "SYSTEM_MIN_FREE_MEM_PCT=0", "1:25 SYSTEM_MIN_FREE_MEM_PCT: 0 is not taken from the file: leave the line out")
        same(config 'SYSTEM_MIN_FREE_MEM_PCT="5"', "1:25 SYSTEM_MIN_FREE_MEM_PCT: '\"5\"' is no number")
        same(config "SYSTEM_MIN_FREE_MEM_PCT=5,5", "1:25 SYSTEM_MIN_FREE_MEM_PCT: of '5,5' only 5 is read")
        same(config "SYS_THR_RUNQ=5", "1:1 SYS_THR_RUNQ: this is a key of policies; in the file it is SYSTEM_RUNQ_PCT_THRESHOLD")
    )lua");
}

TEST(HostCheck, TellsWhatTheModuleWouldDo) {
    ExpectPasses(R"lua(
        local answer = host.check_policy('{ "SYS_CONF_MIN_ACT_DURATION": 10, "SYS_CONF_MAX_ACT_DURATION": 60, ' ..
            '"SYS_CONF_RECOVER_FACTOR": 80, "SYS_THR_RUNQ": { "value": 50 }, "SYS_CONF_UNLOAD_DRIVER": 1 }')
        assert(answer.ok and not answer.off)
        same(table.concat(answer.waits, " "), "10 20 40 60")
        same(table.concat(answer.effect, " "), "The filter fails open with rqpct above 50, delta_t above 45. " ..
            "Recovery checks come after 10, 20, 40, 60 minutes, as long as they fail; one succeeds only if the last two " ..
            "calls were at most 36 s apart. Fail-open unloads the driver.")
        local off = host.check_policy '{ "SYS_THR_CONN_REFUSAL_PCT": { "value": 10 } }'
        assert(off.off and off.effect[1]:find("need the port", 1, true), off.effect[1])
        assert(host.check_policy('{ "SYS_CONF_DISABLE_FAIL_OPEN": 1 }').effect[1]:find("switched off", 1, true))
    )lua");
}

TEST(HostCheck, TouchesNothingOfTheScripts) {
    ExpectPasses(R"lua(
        require "fc"
        host.set_trace("*", true)
        local calls = #host.driver.calls
        assert(host.check_policy('{ "SYS_CONF_CONN_REFUSAL_PORT": 443 }').ok)
        assert(#host.traces() == 0 and #host.log() == 0 and #host.driver.calls == calls)
        assert(host.get_setting("vtp.filter.FailOpenUnloadDriver") == "" and not SLB.filter.GetScanMetricPort())
        local answers = host.check_policy { "{}", '{ "SYS_THR_RUNQ": 1 }' }
        assert(#answers == 2 and answers[1].ok and not answers[2].ok and answers[1].effect == nil)
        local ok, message = pcall(host.check_policy, { "{}", 1 })
        assert(not ok and message:find("an array of strings expected", 1, true), message)
    )lua");
}

TEST(HostCheck, FilesAreCheckedFromTheCommandLine) {
    const TemporaryFolder folder;
    const std::wstring policy =
        folder.Write(L"policy.json", "{ \"SYS_CONF_MIN_ACT_DURATION\": 10,\n \"SYS_THR_RUNQ\": 5 }");
    const std::string name = std::filesystem::path(policy).string();
    const HostRun run = RunHost({L"--check-policy", policy});
    EXPECT_EQ(run.exitCode, 1U) << run.err;
    EXPECT_EQ(run.out,
              name + ":2:18: SYS_THR_RUNQ: a bare number is left out: a threshold is written { \"value\": 5 }\n" +
                  name + ": the module takes 1 value\n  line 1: SYS_CONF_MIN_ACT_DURATION = 10\n" +
                  "The filter fails open with delta_t above 45.\nRecovery checks come after 10, 20, 40, 80, 160, "
                  "240 minutes, as long as they fail; one succeeds only if the last two calls were at most 45 s "
                  "apart.\n");
    const HostRun config = RunHost({L"--check-config", TestData("examples/vt_filter.conf").wstring()});
    EXPECT_EQ(config.exitCode, 0U) << config.out << config.err;
    EXPECT_TRUE(Contains(config.out, "the module takes 10 values\n")) << config.out;
    const HostRun missing = RunHost({L"--check-policy", folder.At(L"none")});
    EXPECT_EQ(missing.exitCode, 2U);
    EXPECT_TRUE(Contains(missing.err, "fc-host: cannot open ")) << missing.err;
    EXPECT_EQ(RunHost({L"--check-policy", policy, L"x.lua"}).exitCode, 2U);
}

TEST(HostCheck, PrintsThatTheModuleDoesSomethingElseThanItExpects) {
    const JsonPtr answer(cJSON_Parse(R"({ "problems": [], "taken": [], "unexplained": true })"));
    EXPECT_EQ(AnswerText("a.json", answer.get()),
              "a.json: the module takes 0 values\n"
              "a.json: the module does something else than this check expects, which is a mistake of the check\n");
    const JsonPtr explained(cJSON_Parse(R"({ "problems": [], "taken": [], "unexplained": false })"));
    EXPECT_EQ(AnswerText("a.json", explained.get()), "a.json: the module takes 0 values\n");
}

TEST(HostCheck, CountsLinesAndColumnsOfPlacesInAnyOrder) {
    ExpectPassesWithTheChecksFiles(R"lua(
        local texts = require "texts"
        local function counted(text, offset)
            local line, column = 1, 1
            for i = 1, offset - 1 do
                local byte = text:byte(i)
                if byte == 10 then
                    line, column = line + 1, 1
                elseif byte < 128 or byte > 191 then
                    column = column + 1
                end
            end
            return line .. ":" .. column
        end
        math.randomseed(1)
        for round = 1, 100 do
            local parts, line_length = {}, math.random(200)
            for i = 1, math.random(0, 1000) do
                parts[i] = math.random(line_length) == 1 and "\n" or math.random(4) == 1 and "\226\130\172" or "a"
            end
            local text = table.concat(parts)
            local place_of = texts.places_of(text)
            for try = 1, 20 do
                local offset = try == 1 and #text + 1 or math.random(#text + 1)
                local line, column = place_of(offset)
                assert(line .. ":" .. column == counted(text, offset), offset .. " of " .. #text)
            end
        end
    )lua");
}

// What the functions for texts are given to read is the work: twenty times as many problems in a line twenty times as
// long are twenty times as much of it, and would be four hundred times if each counted from the beginning.
TEST(HostCheck, FindsThePlacesOfManyProblemsInALongLineInLinearTime) {
    ExpectPassesWithTheChecksFiles(R"lua(
        local Answer, work = require "answer", 0
        for _, name in ipairs { "find", "gsub", "match" } do
            local real = string[name]
            string[name] = function(text, ...)
                work = work + #text
                return real(text, ...)
            end
        end
        local sub = string.sub
        string.sub = function(...)
            local part = sub(...)
            work = work + #part
            return part
        end
        local function work_of(problems, separator)
            local text = ("key = value" .. separator):rep(problems)
            work = 0
            local answer = Answer.new(text)
            for i = 1, problems do
                answer:problem(1 + (i - 1) * (#text / problems), nil, "wrong")
            end
            local last = answer.problems[problems]
            assert(last.line == (separator == "\n" and problems or 1), last.line)
            assert(last.column == (separator == "\n" and 1 or (problems - 1) * 12 + 1), last.column)
            return work
        end
        for _, separator in ipairs { ",", "\n" } do
            local few, many = work_of(200, separator), work_of(4000, separator)
            assert(many < 40 * few, few .. " and " .. many)
        end
    )lua");
}

// Keys are the only thing about the module's values that the check does not ask of the module.
TEST(HostCheck, KnowsEveryKeyThatTheModuleHas) {
    ExpectPasses(R"lua(
        local file = assert(io.open([[)lua" +
                 (BinaryFolder() / "fc.dll").string() + R"lua(]], "rb"))
        local image, file_keys, policy_keys = file:read("*a"), {}, {}
        for key in image:gmatch("(SYSTEM_[A-Z_]+)=%z") do file_keys[#file_keys + 1] = key end
        for key in image:gmatch("(SYS_[A-Z]+_[A-Z_]+)%z") do policy_keys[#policy_keys + 1] = key end
        assert(#file_keys >= 13 and #policy_keys >= 13, #file_keys .. " " .. #policy_keys)
        local function unknown(answer)
            for _, problem in ipairs(answer.problems) do
                assert(not problem.text:find("no such key", 1, true), problem.key)
            end
        end
        unknown(host.check_config(table.concat(file_keys, "=1\n") .. "=1\n"))
        unknown(host.check_policy('{ "' .. table.concat(policy_keys, '": 1, "') .. '": 1 }'))
    )lua");
}

TEST(HostCheck, TheModuleTakesOfRandomAndHostilePoliciesWhatTheCheckSays) {
    ExpectTheModuleDoesTheSame(12, "policy");
}

TEST(HostCheck, TheModuleTakesOfRandomAndHostileFilesWhatTheCheckSays) {
    ExpectTheModuleDoesTheSame(2, "config");
}
