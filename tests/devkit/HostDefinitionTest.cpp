// docs/lua/host.d.lua, the definitions of the table `host` for editors, against the table as it is and against
// docs/host.md.
#include <gtest/gtest.h>

#include <iterator>
#include <regex>
#include <string>

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
