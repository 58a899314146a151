// What fc-host.exe answers to mistakes in scripts and in the files that it is given.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// The script fails, and says this.
void ExpectFails(const std::string &script, const std::string &message) {
    const HostRun run = RunScript(script, {L"--quiet"});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(Contains(run.err, message)) << script << ": " << run.err;
}

/// The error of the script's second line.
std::string InSecondLine(const std::string &message) {
    return "script.lua:2: " + message;
}

}  // namespace

TEST(HostMistakes, SettingsThatAreNoJsonObjectAreRefusedAndStay) {
    const std::pair<const char *, const char *> files[] = {
        {"{\n  \"a\": }", "it is no JSON object: near line 2, column 8"},
        {"[1]", "it is no JSON object: near line 1, column 4"},
        {"{} {}", "it is no JSON object: near line 1, column 4"},
        {"", "it is empty"}};
    for (const auto &[content, fault] : files) {
        const TemporaryFolder folder;
        const std::wstring path = folder.Write(L"settings", content);
        const HostRun run = RunScript("print 'ran'", {L"--settings", path});
        EXPECT_EQ(run.exitCode, 2U);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "fc-host: cannot read the settings in " + std::filesystem::path(path).string() + ": " +
                               fault + "; correct the file, or name another one\n");
        EXPECT_EQ(TextOfFile(path), content);
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.Path()), {}), 1);
    }
}

TEST(HostMistakes, AnUnknownAdapterIsAnErrorOfTheFirstArgumentInTheScriptsLine) {
    for (const char *call : {"change_adapter('nope', {})", "remove_adapter('nope')", "bind('nope', 'ms_tcpip')"}) {
        const std::string name(call, std::string(call).find('('));
        ExpectFails("\nhost.machine." + std::string(call),
                    InSecondLine("bad argument #1 to '" + name + "' (there is no adapter nope)"));
    }
}

TEST(HostMistakes, AZipThatCannotBeReadIsToldWithItsReason) {
    const TemporaryFolder folder;
    const std::string text = std::filesystem::path(folder.Write(L"text", "no zip")).string();
    ExpectFails("\nhost.read_zip('none.zip')",
                InSecondLine("bad argument #1 to 'read_zip' (cannot open none.zip: No such file or directory)"));
    ExpectFails("\nhost.read_zip([[" + text + "]])",
                InSecondLine("bad argument #1 to 'read_zip' (cannot read " + text + ": it is no zip file)"));
}

TEST(HostMistakes, AConstObjectAtAnInstallationIsToldWithTheArgumentAndWhatItHasToBe) {
    for (const char *function : {"InstallOrUpdateDriver", "UninstallDriver"})
        ExpectFails("require 'fc'\nSLB.filter." + std::string(function) + "(host.const_dom(), '', '')",
                    InSecondLine("Expected (non-const) Object SLB.Dom\nhint: argument #1 has to be host.dom(), the "
                                 "agent's object; host.const_dom() and other values are refused\n"));
}

TEST(HostMistakes, TheModulesTableBeforeTheModuleIsLoadedIsAnErrorWithAHint) {
    const std::string hint = "\nhint: the module is not loaded: require \"fc\" loads it and makes SLB.filter\n";
    ExpectFails("\nSLB.filter.UpdateConnMetrics()", InSecondLine("attempt to index global 'SLB' (a nil value)" + hint));
    ExpectFails("require 'fc' host.restart_module()\nSLB.filter.UpdateConnMetrics()",
                InSecondLine("attempt to index field 'filter' (a nil value)" + hint));
    const HostRun prompt = RunHost({L"-i"}, "SLB.filter.UpdateConnMetrics()\n");
    EXPECT_TRUE(Contains(prompt.err, hint)) << prompt.err;
}

TEST(HostMistakes, OtherErrorsHaveNoHint) {
    const HostRun run = RunScript("require 'fc'\nlocal SLB = nil; SLB.filter = 1", {L"--quiet"});
    EXPECT_TRUE(Contains(run.err, "attempt to index local 'SLB' (a nil value)")) << run.err;
    EXPECT_FALSE(Contains(run.err, "hint:")) << run.err;
}

TEST(HostMistakes, AFunctionThatWasKeptOverARestartRaisesAnError) {
    const HostRun run = RunScript(R"lua(
        require "fc"
        local kept = {}
        for name, f in pairs(SLB.filter) do kept[name] = f end
        assert(next(kept) and kept.GetSysHealthEnabled() == false)
        local function all_fail(when)
            for name, f in pairs(kept) do
                local ok, message = pcall(f, host.dom(), "", "")
                assert(not ok and message:find(name .. " was kept from before host.restart_module()", 1, true),
                       when .. ": " .. name .. ": " .. tostring(message))
            end
        end
        host.restart_module()
        all_fail("while the module is gone")
        require "fc"
        all_fail("when it is loaded again")
        assert(SLB.filter.GetSysHealthEnabled() == false)
    )lua");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}

// As the module by itself would: a function's messages name it as the script does, with the script's line.
TEST(HostMistakes, FunctionsOfTheModuleTellTheirErrorsInTheScriptsLine) {
    ExpectFails("require 'fc'\nSLB.filter.AddToConnMetrics({}, '', 1)",
                InSecondLine("bad argument #1 to 'AddToConnMetrics' (string expected, got table)"));
    ExpectFails("\nrequire 'nowhere'", InSecondLine("module 'nowhere' not found:"));
    const HostRun run =
        RunScript("assert(require 'fc' == true and require 'fc' == true and package.loaded.fc == true)");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}
