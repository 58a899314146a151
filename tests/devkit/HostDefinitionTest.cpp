// docs/lua/host.d.lua, the definitions of the table `host` for editors, against the table as it is and against
// docs/host.md.
#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <string>

#include "HostInstallScript.h"
#include "HostProcess.h"

namespace {

/// The definitions as Lua: they are a script that fills `host`.
const std::filesystem::path kDefinitions = TestData("docs/lua/host.d.lua");

/// Runs a script with `real`, the table as it is; `stubs`, the table that the definitions make; `definitions`, their
/// text.
void ExpectPasses(const std::string &script) {
    const HostRun run = RunScript(R"lua(
        local real = host
        local path = [[)lua" + kDefinitions.string() +
                                      R"lua(]]
        assert(loadfile(path))()
        local stubs = host
        host = real
        local file = assert(io.open(path, "rb"))
        local definitions = file:read("*a"):gsub("\r", "")
        file:close()
    )lua" + script,
                                  {L"--quiet", L"--fast", L"1"});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

}  // namespace

TEST(HostDefinition, HasAStubForEachFunctionAndFieldOfTheTableAndForNoOther) {
    ExpectPasses(R"lua(
        local function compare(prefix, is, has)
            for name, value in pairs(is) do
                local stub = rawget(has, name)
                assert(stub ~= nil, "the definitions lack " .. prefix .. name)
                assert(type(stub) == type(value), prefix .. name .. " is a " .. type(value))
                if type(value) == "table" and getmetatable(value) then
                    compare(prefix .. name .. ".", value, stub)
                end
            end
            for name in pairs(has) do
                assert(pcall(function() assert(is[name] ~= nil) end), "the definitions have " .. prefix .. name)
            end
        end
        compare("host.", real, stubs)
    )lua");
}

TEST(HostDefinition, TellsEachParameterOfItsStubsInOrder) {
    ExpectPasses(R"lua(
        local count, told = 0, {}
        for line in definitions:gmatch("([^\n]*)\n") do
            told[#told + 1] = line:match("^%-%-%-@param ([%w_.]+)%?? %S")
            local name, parameters = line:match("^function ([%w_.]+)%((.*)%) end$")
            if name then
                assert(table.concat(told, ", ") == parameters, name .. ": " .. table.concat(told, ", "))
                count = count + 1
            end
            if line == "" or name then
                told = {}
            end
        end
        assert(count > 50, count)
    )lua");
}

TEST(HostDefinition, HasTheParametersThatTheDocumentHas) {
    const std::string text = TextOfFile(TestData("docs/host.md").wstring());
    const std::string definitions = TextOfFile(kDefinitions.wstring());
    const std::regex heading(R"((^|\n)### `([a-zA-Z_.]+\(.*\))`)");
    int count = 0;
    for (std::sregex_iterator match(text.begin(), text.end(), heading), end; match != end; ++match, ++count) {
        const std::string signature = (*match)[2];
        EXPECT_NE(definitions.find("\nfunction " + signature + " end"), std::string::npos) << signature;
    }
    EXPECT_GT(count, 50);
}

namespace {

/// Makes each function of the table compare its results with what the definitions say of them. At the end
/// check_completeness() expects that each function with results was called, and that each field of theirs was there.
const std::string kComparedResults = R"lua(
        local function is_integer(value)
            return type(value) == "number" and value % 1 == 0
        end
        -- Of the types in comments: base types, classes, "texts", TYPE|TYPE, TYPE[] and table<TYPE, TYPE>.
        local classes, seen = {}, {}
        local is_of

        local function is_of_class(value, class, path)
            assert(type(value) == "table", path .. " is a " .. type(value))
            for name in pairs(value) do
                assert(classes[class][name], "host." .. class .. " lacks the field " .. tostring(name) .. " of " .. path)
            end
            for name, field in pairs(classes[class]) do
                local item = value[name]
                assert(item == nil and field.is_optional or is_of(item, field.type, path .. "." .. name),
                    path .. "." .. name .. " is " .. tostring(item) .. ", not " .. field.type)
                seen[class .. "." .. name] = seen[class .. "." .. name] or item ~= nil
            end
            return true
        end

        local function are_of(value, key_type, item_type, path)
            local count = 0
            for key, item in pairs(value) do
                count = count + 1
                if not is_of(key, key_type, path) or not is_of(item, item_type, path .. "[" .. key .. "]") then
                    return false
                end
            end
            return key_type ~= "integer" or count == #value
        end

        function is_of(value, type_text, path)
            local first, rest = type_text:match("^([^|]+)|(.+)$")
            local items, key, item = type_text:match("^(.+)%[%]$"), type_text:match("^table<(.+), (.+)>$")
            local class = type_text:match("^host%.(%w+)$")
            if first then
                return is_of(value, first, path) or is_of(value, rest, path)
            elseif items then
                return type(value) == "table" and are_of(value, "integer", items, path)
            elseif key then
                return type(value) == "table" and are_of(value, key, item, path)
            elseif class and classes[class] then
                return is_of_class(value, class, path)
            elseif class or type_text == "SLB.Dom" or type_text == "fc.DriverHandle" then
                return type(value) == "userdata"
            elseif type_text == "any" or type_text == "T" then
                return true
            end
            return type_text == ("%q"):format(tostring(value)) or type_text == type(value) or
                type_text == "integer" and is_integer(value)
        end

        local function type_of(text) -- in front of a name or a comment, behind which there is no comma
            local found = text:match("^table<.->%??") or text:match("^[^%s]+")
            return found:gsub("%?$", ""), found:find("%?$") ~= nil
        end

        local functions, class, returns, overload = {}, nil, {}, nil
        for line in definitions:gmatch("([^\n]*)\n") do
            local new, base = line:match("^%-%-%-@class host%.(%w+)[ :]*(%S*)")
            local field, mark, text = line:match("^%-%-%-@field ([%w_]+)(%??) (.+)$")
            local called = line:match("^function host%.([%w_.]+)%(")
            if new and not base:find("^SLB%.") then
                class = {}
                classes[new] = class
                for name, inherited in pairs(classes[base:match("^host%.(%w+)") or ""] or {}) do
                    class[name] = inherited
                end
            elseif field and class then
                class[field] = { type = type_of(text), is_optional = mark == "?" }
            elseif line:find("^%-%-%-@return ") then
                local result, is_optional = type_of(line:match(" (.+)$"))
                returns[#returns + 1] = { type = result, is_optional = is_optional }
            elseif line:find("^%-%-%-@overload ") then
                overload = line:match("%): (.+)$")
            elseif called then
                functions[called], returns, overload = { returns = returns, overload = overload }, {}, nil
            elseif line == "" then
                class, returns, overload = nil, {}, nil
            end
        end

        local function compare(name, declared, ...)
            assert(select("#", ...) <= #declared.returns, "host." .. name .. " has more results than are declared")
            for i, result in ipairs(declared.returns) do
                local value, path = (select(i, ...)), "host." .. name .. "()"
                local fits = value == nil and result.is_optional or
                    declared.overload and type(value) == "table" and #value > 0 and is_of(value, declared.overload, path) or
                    is_of(value, result.type, path)
                assert(fits, path .. " is " .. tostring(value) .. ", not " .. result.type)
            end
            return ...
        end

        for name, declared in pairs(functions) do
            local owner = real
            for part in name:gmatch("(%w+)%.") do
                owner = owner[part]
            end
            local own = name:match("[%w_]+$")
            local f = owner[own]
            rawset(owner, own, function(...)
                declared.is_called = true
                return compare(name, declared, f(...))
            end)
        end

        -- The classes that a type names, with those of their fields.
        local function add_classes(type_text, found)
            for class in type_text:gmatch("host%.(%w+)") do
                if classes[class] and not found[class] then
                    found[class] = true
                    for _, field in pairs(classes[class]) do
                        add_classes(field.type, found)
                    end
                end
            end
        end

        local function check_completeness()
            local found, count = {}, 0
            for name, declared in pairs(functions) do
                assert(#declared.returns == 0 or declared.is_called, "nobody calls host." .. name)
                for _, result in ipairs(declared.returns) do
                    add_classes(result.type, found)
                end
            end
            for class in pairs(found) do
                for name in pairs(classes[class]) do
                    assert(seen[class .. "." .. name], "nobody has seen the field " .. name .. " of host." .. class)
                    count = count + 1
                end
            end
            assert(count > 60, count)
        end
)lua";

/// Calls each function that has results.
const std::string kCalls = R"lua(
        local folder = os.getenv("TEMP") .. "\\fc-definition-test\\"
        local tested = folder .. "tested.lua"
        real.write_file(tested, "print 'here'")
        real.run_script(tested)
        real.expect.status(0, tested)
        real.expect.that(true)
        real.expect.equal(1, 1)
        real.expect.error("wrong", error, "wrong")
        real.dom()
        real.const_dom()
        real.get_setting("a")
        real.time()
        real.interrupted()
        real.fault_names()
        real.driver.fault_names()
        real.driver.get_variable(1)
        real.write_json(folder .. "value.json", { 1 })
        real.read_json(folder .. "value.json")
        local zip = real.zip(folder .. "files.zip")
        zip:add("name", "content")
        real.close_zip(zip)
        real.read_zip(folder .. "files.zip")
        real.close_handle(real.driver_handle())
        real.check_policy('{ "SYS_THR_RUNQ": { "value": 5 }, "SYS_CONF_MIN_ACT_DURATION": 10, "typo": 1 }')
        real.check_policy { "{}", "[" }
        real.check_config("SYSTEM_RUNQ_PCT_THRESHOLD=50\n?")

        real.set_trace("mine", true)
        real.trace("mine", "here")
        real.traces()
        real.set_verbose_log(true)
        real.send_event(1004, "fails open")
        real.expect.event { number = 1004 }
        real.notify_user(2, "please", "reboot")
        machine.folders()
        ready "2.0.0.0"
        install()
        ship "2.1.0.0"
        install()
        real.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, fail = 0x80070005 }
        remove()
        real.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        remove()
        machine.unlock_network()
        real.fault { call = "TerminateThread", fail = 5 }
        real.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true, advance = 601 }
        remove()
        real.clear_faults() -- the thread that could not be ended goes on
        real.installations()
        machine.inventory()
        machine.adapters()
        SLB.filter.WindowsFirewallAddApp("C:\\program.exe", "program")
        machine.firewall()
        real.log()
        check_completeness()
)lua";

}  // namespace

TEST(HostDefinition, HasTheFieldsThatFunctionsReturnInTables) {
    (void)RunInstallScript(R"lua(
        local real = host
        local file = assert(io.open([[)lua" +
                               kDefinitions.string() + R"lua(]], "rb"))
        local definitions = file:read("*a"):gsub("\r", "")
        file:close()
)lua" + kComparedResults + kCalls,
                           {L"--quiet"}, {L"--clock", L"steps"});
}

// The functions refuse other fields by name before anything else.
TEST(HostDefinition, HasTheFieldsThatFunctionsTakeInTables) {
    ExpectPasses(R"lua(
        local function fields_of(class)
            local heading, body = definitions:match("%-%-%-@class host%." .. class .. "( ?[^\n]*)\n(.-)\n\n")
            local base = heading:match(": host%.(%w+)")
            local fields = base and fields_of(base) or {}
            for field in body:gmatch("%-%-%-@field ([%w_]+)") do
                fields[#fields + 1] = field
            end
            return fields
        end
        local machine = real.machine
        local takers = {
            Component = machine.put_component, Device = machine.put_device, Adapter = machine.put_adapter,
            Installable = machine.put_installable, FirewallSwitches = machine.set_firewall, Fault = real.fault,
            AdapterChanges = function(changes) machine.change_adapter("none", changes) end,
            Moment = function(moment) machine.when(moment, "none", {}) end,
        }
        for class, take in pairs(takers) do
            local fields = fields_of(class)
            assert(#fields > 1, class)
            for _, field in ipairs(fields) do
                local ok, message = pcall(take, { [field] = print })
                assert(not ok and not message:find("there is no field", 1, true), class .. ": " .. tostring(message))
            end
            local ok, message = pcall(take, { nonsense = print })
            assert(not ok and message:find("there is no field 'nonsense'", 1, true), class .. ": " .. tostring(message))
        end
    )lua");
}
