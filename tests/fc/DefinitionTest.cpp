// docs/lua/fc.d.lua, the definitions for editors, and the headings of docs/lua-functions.md, compared with the module.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <wx/mstream.h>

#include "ModuleFixture.h"
#include "SLB3.h"
#include "TestData.h"
#include "slb3_control.h"
#include "vta_core_control.h"
#include "vti_control.h"

namespace {

using Texts = std::vector<std::string>;

const std::filesystem::path kDefinitions = TestData("docs/lua/fc.d.lua");
const std::filesystem::path kFunctions = TestData("docs/lua-functions.md");

std::string WholeFile(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << "no " << path.string();
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Names separated by commas, without the spaces around them.
Texts SplitNames(const std::string &text) {
    const std::regex name(R"([^,\s]+)");
    Texts names;
    for (std::sregex_iterator match(text.begin(), text.end(), name), end; match != end; ++match)
        names.push_back(match->str());
    return names;
}

/// What the comments above a stub say, or the signature in a section of the document.
struct Signature {
    Texts parameters;
    Texts types;  ///< Of the parameters; only in the definitions.
    std::size_t results = 0;
};
using Signatures = std::map<std::string, Signature>;

Signatures Annotations() {
    const std::regex parameter(R"(---@param (\w+)\??\s+(\S+).*)");
    const std::regex function(R"(function SLB\.filter\.(\w+)\(.*\) end)");
    Signatures signatures;
    Signature signature;
    std::istringstream lines(WholeFile(kDefinitions));
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, parameter)) {
            signature.parameters.push_back(match[1]);
            signature.types.push_back(match[2]);
        } else if (line.starts_with("---@return ")) {
            ++signature.results;
        } else if (std::regex_match(line, match, function)) {
            signatures[match[1]] = signature;
            signature = {};
        } else if (line.empty()) {
            signature = {};
        }
    }
    return signatures;
}

/// The first signature in each section: `results = Name(parameters)`, or without results.
Signatures DocumentedSignatures() {
    const std::string text = WholeFile(kFunctions);
    const std::regex heading(R"((^|\n)### (\w+)\n)");
    Signatures signatures;
    for (std::sregex_iterator match(text.begin(), text.end(), heading), end; match != end; ++match) {
        const std::string name = (*match)[2];
        const std::string section = match->suffix().str().substr(0, 2000);
        const std::regex call("`(([\\w, ]+) = )?" + name + "\\(([^)]*)\\)`");
        std::smatch found;
        EXPECT_TRUE(std::regex_search(section, found, call)) << name << " has no signature";
        if (!found.empty())
            signatures[name] = {SplitNames(found[3]), {}, SplitNames(found[2]).size()};
    }
    return signatures;
}

/// The module in SLB.filter, and the stubs of the definitions in the table `stubs`.
class Definition : public ModuleFixture {
protected:
    Definition() : ModuleFixture({.registry = true, .folders = false}), m_handle(vti_open()) {
        lua.Run("module = SLB; assert(loadfile([[" + kDefinitions.string() + "]]))(); stubs, SLB = SLB.filter, module");
        SLB3::Control::PushInstance(lua, "SLB.Dom", &m_dom);
        lua_setglobal(lua, "dom");
        SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &m_zip);
        lua_setglobal(lua, "zip");
        *static_cast<vti_handle_t **>(lua_newuserdata(lua, sizeof(void *))) = m_handle;
        luaL_newmetatable(lua, "vti_handle_t*");
        lua_setmetatable(lua, -2);
        lua_setglobal(lua, "handle");
    }
    ~Definition() override {
        vti_close(m_handle);
        Vti::Reset();
    }

    std::set<std::string> NamesIn(const std::string &table) {
        lua.Run("names = {} for name in pairs(" + table + ") do names[#names + 1] = name end");
        const Texts names = SplitNames(lua.Eval("table.concat(names, ',')"));
        return {names.begin(), names.end()};
    }
    Texts ParametersOfStub(const std::string &name) {
        lua.Run("names = {} for i = 1, debug.getinfo(stubs." + name +
                ", 'u').nparams do names[i] = debug.getlocal(stubs." + name + ", i) end");
        return SplitNames(lua.Eval("table.concat(names, ',')"));
    }
    /// The binder's record of a bound function; null for one that reads its arguments itself.
    const SLB3::BaseInfo *RecordOf(const std::string &name) {
        lua.Run("found = SLB.filter." + name);
        lua_getglobal(lua, "found");
        const SLB3::BaseInfo *record = nullptr;
        if (lua_getupvalue(lua, -1, 2) != nullptr)
            record = static_cast<const SLB3::BaseInfo *>(lua_touserdata(lua, -1));
        lua_settop(lua, 0);
        return record;
    }
    /// An argument of the type, in Lua.
    static std::string ValueOf(const std::string &type) {
        static const std::map<std::string, std::string> values{{"SLB.Dom", "dom"},
                                                               {"fc.DriverHandle", "handle"},
                                                               {"SLB.wx.ZipOutputStream", "zip"},
                                                               {"string", "'text'"},
                                                               {"\"Activated\"|\"Deactivated\"", "'Activated'"},
                                                               {"number", "1"},
                                                               {"string[]", "{}"}};
        const auto value = values.find(type);
        EXPECT_NE(value, values.end()) << "no value of the type " << type;
        return value == values.end() ? "nil" : value->second;
    }
    /// A call with the given number of arguments of the right types.
    static std::string CallWith(const std::string &name, const Texts &types, std::size_t count) {
        std::string arguments;
        for (std::size_t i = 0; i < count; ++i)
            arguments += (i == 0 ? "" : ", ") + ValueOf(types[i]);
        return "SLB.filter." + name + "(" + arguments + ")";
    }

    VtaCore::Control::Dom m_dom;
    wxMemoryOutputStream m_package;
    VtaCore::Control::ZipPackage m_zip{m_package};
    vti_handle_t *const m_handle;
};

TEST_F(Definition, HasAStubForEachFunctionOfTheModuleAndForNoOther) {
    EXPECT_EQ(NamesIn("stubs"), NamesIn("SLB.filter"));
}

TEST_F(Definition, DescribesEachParameterOfItsStubsInOrder) {
    const Signatures annotations = Annotations();
    EXPECT_EQ(annotations.size(), NamesIn("stubs").size());
    for (const auto &[name, annotation] : annotations)
        EXPECT_EQ(annotation.parameters, ParametersOfStub(name)) << name;
}

TEST_F(Definition, HasTheParametersAndResultsOfTheBindersRecords) {
    std::size_t bound = 0;
    for (const auto &[name, annotation] : Annotations()) {
        const SLB3::BaseInfo *const record = RecordOf(name);
        if (record == nullptr)
            continue;
        EXPECT_EQ(static_cast<int>(annotation.parameters.size()), record->parameterCount()) << name;
        EXPECT_EQ(annotation.results, 1U) << name;
        ++bound;
    }
    EXPECT_EQ(bound, 12U);
}

// Except the health check, which raises no error for a wrong argument: the test below uses its result.
TEST_F(Definition, NamesExactlyTheParametersThatFunctionsRead) {
    for (const auto &[name, annotation] : Annotations()) {
        const std::size_t count = annotation.types.size();
        if (RecordOf(name) != nullptr || name == "CheckSystemHealthMetrics")
            continue;
        EXPECT_EQ(lua.ErrorOf(CallWith(name, annotation.types, count)), "");
        if (count == 0)
            continue;
        const std::string error = lua.ErrorOf(CallWith(name, annotation.types, count - 1));
        EXPECT_NE(error.find("bad argument #" + std::to_string(count) + " to '" + name + "'"), std::string::npos)
            << error;
    }
}

TEST_F(Definition, NamesTheThirdArgumentThatTheHealthCheckReads) {
    const Texts types = Annotations()["CheckSystemHealthMetrics"].types;
    ASSERT_EQ(types.size(), 3U);
    EXPECT_EQ(lua.Eval(CallWith("CheckSystemHealthMetrics", types, 2) + ".action"), "6");
}

TEST_F(Definition, HasTheParametersAndResultsOfTheDocument) {
    const Signatures documented = DocumentedSignatures();
    const Signatures annotations = Annotations();
    EXPECT_EQ(documented.size(), annotations.size());
    for (const auto &[name, signature] : documented) {
        const auto annotation = annotations.find(name);
        ASSERT_NE(annotation, annotations.end()) << name;
        EXPECT_EQ(annotation->second.parameters, signature.parameters) << name;
        EXPECT_EQ(annotation->second.results, signature.results) << name;
    }
}

}  // namespace
