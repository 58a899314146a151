// fc-host.exe: options, the libraries it needs, and its exit status.
#include <regex>

#include <gtest/gtest.h>
#include <wx/string.h>

#include "HostProcess.h"

namespace {

constexpr DWORD kCannotRun = 2;

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

/// A copy of the program and its libraries, with one missing.
void CopyBinariesWithout(const std::wstring &missing, const std::filesystem::path &target) {
    for (const auto &entry : std::filesystem::directory_iterator(BinaryFolder())) {
        const std::wstring name = entry.path().filename().wstring();
        if ((entry.path().extension() == L".dll" || name == L"fc-host.exe") && name != missing)
            std::filesystem::copy_file(entry.path(), target / name);
    }
}

}  // namespace

TEST(HostCommandLine, HelpNamesEveryOption) {
    const HostRun run = RunHost({L"--help"});
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_EQ(run.err, "");
    for (const char *option : {"-i", "--quiet", "--trace", "--events", "--report", "--settings", "--clock", "--fast",
                               "--check-policy", "--check-config", "--help", "--version"})
        EXPECT_TRUE(Contains(run.out, option)) << option;
}

TEST(HostCommandLine, VersionNamesLuaAndWxWidgets) {
    const HostRun run = RunHost({L"--version"});
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_TRUE(Contains(run.out, "fc-host 1.")) << run.out;
    EXPECT_TRUE(Contains(run.out, "Lua 5.2")) << run.out;
    EXPECT_TRUE(Contains(run.out, "wxWidgets 3.")) << run.out;
}

/// As in the version resource of fc.dll beside this program.
std::string VersionOfModule() {
    const std::wstring path = (BinaryFolder() / L"fc.dll").wstring();
    std::vector<char> data(GetFileVersionInfoSizeW(path.c_str(), nullptr));
    void *text = nullptr;
    UINT length = 0;
    EXPECT_TRUE(GetFileVersionInfoW(path.c_str(), 0, static_cast<DWORD>(data.size()), data.data()));
    EXPECT_TRUE(VerQueryValueW(data.data(), L"\\StringFileInfo\\040904B0\\ProductVersion", &text, &length));
    return text == nullptr ? "" : wxString(static_cast<const wchar_t *>(text)).utf8_string();
}

TEST(HostCommandLine, VersionIncludesTheCommitAndMatchesTheModule) {
    const std::string version = VersionOfModule();
    EXPECT_TRUE(std::regex_match(version, std::regex(R"(\d+\.\d+\.\d+\+(unknown|g[0-9a-f]{10}(-dirty)?))"))) << version;
    const HostRun run = RunHost({L"--version"});
    EXPECT_TRUE(run.out.starts_with("fc-host " + version + ", ")) << run.out;
}

TEST(HostCommandLine, RejectsUnknownOptionsWithAHint) {
    const HostRun run = RunHost({L"--bogus", L"x.lua"});
    EXPECT_EQ(run.exitCode, kCannotRun);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "fc-host: unknown option '--bogus'; fc-host --help lists the options\n");
}

TEST(HostCommandLine, RejectsInvalidValues) {
    const std::vector<std::vector<std::wstring>> lines{{L"--fast", L"0", L"x.lua"},
                                                       {L"--fast=2.5", L"x.lua"},
                                                       {L"--fast", L"x.lua"},
                                                       {L"--fast", L"1000001", L"x.lua"},
                                                       {L"--events"},
                                                       {L"--trace="}};
    for (const auto &line : lines) {
        const HostRun run = RunHost(line);
        EXPECT_EQ(run.exitCode, kCannotRun);
        EXPECT_TRUE(Contains(run.err, " needs a value: ")) << run.err;
    }
}

TEST(HostCommandLine, RefusesOtherOptionsBesideACheckByTheirNames) {
    const TemporaryFolder folder;
    const std::wstring policy = folder.Write(L"policy", "{}");
    const HostRun others = RunHost({L"--report", folder.At(L"report.html"), L"--trace", L"*", L"--check-policy", policy,
                                    L"--trace=NDIS", L"--clock=real", L"--quiet"});
    EXPECT_EQ(others.exitCode, kCannotRun);
    EXPECT_EQ(others.err,
              "fc-host: --check-policy and --check-config stand alone, or with --quiet; leave out --clock, "
              "--report, --trace\n");
    const HostRun prompt = RunHost({L"-i", L"--check-config", policy});
    EXPECT_EQ(prompt.exitCode, kCannotRun);
    EXPECT_TRUE(Contains(prompt.err, "check a file and run no script; leave out one of them")) << prompt.err;
    const HostRun twice = RunHost({L"--check-policy", policy, L"--check-policy", policy});
    EXPECT_EQ(twice.exitCode, kCannotRun);
    EXPECT_TRUE(Contains(twice.err, "check one file at a time; leave out one of them")) << twice.err;
    const HostRun quiet = RunHost({L"--quiet", L"--check-policy", policy});
    EXPECT_EQ(quiet.exitCode, 0U) << quiet.err;
    EXPECT_TRUE(Contains(quiet.out, "the module takes 0 values\n")) << quiet.out;
}

TEST(HostCommandLine, RequiresEitherAScriptOrAPrompt) {
    const HostRun none = RunHost({});
    EXPECT_EQ(none.exitCode, kCannotRun);
    EXPECT_TRUE(Contains(none.err, "no script is given")) << none.err;
    const HostRun both = RunHost({L"-i", L"x.lua"});
    EXPECT_EQ(both.exitCode, kCannotRun);
    EXPECT_TRUE(Contains(both.err, "leave out either -i or 'x.lua'")) << both.err;
}

TEST(HostCommandLine, NamesAMissingScript) {
    const HostRun run = RunHost({L"nowhere.lua"});
    EXPECT_EQ(run.exitCode, kCannotRun);
    EXPECT_EQ(run.err, "fc-host: cannot open nowhere.lua: No such file or directory\n");
}

TEST(HostCommandLine, NamesAnEventsFileThatCannotBeWrittenBeforeTheScriptRuns) {
    const TemporaryFolder folder;
    const HostRun run = RunScript("print 'ran'", {L"--events", folder.Path().wstring()});
    EXPECT_EQ(run.exitCode, kCannotRun);
    EXPECT_EQ(run.out, "");
    EXPECT_TRUE(Contains(run.err, "cannot write " + folder.Path().string())) << run.err;
}

TEST(HostCommandLine, RejectsTheSameFileForTwoOptions) {
    const TemporaryFolder folder;
    const std::wstring same = folder.At(L"SAME.html");
    const HostRun run = RunScript("print 'ran'", {L"--events", folder.At(L"same.html"), L"--report", same});
    EXPECT_EQ(run.exitCode, kCannotRun);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "fc-host: --events and --report name one file, '" + std::filesystem::path(same).string() +
                           "'; give each a file of its own\n");
}

TEST(HostCommandLine, RejectsAFolderInPlaceOfAFile) {
    for (const wchar_t *option : {L"--events", L"--report", L"--settings"}) {
        const TemporaryFolder folder;
        const HostRun run = RunScript("print 'ran'", {option, folder.Path().wstring()});
        EXPECT_EQ(run.exitCode, kCannotRun);
        EXPECT_EQ(run.out, "");
        EXPECT_EQ(run.err, "fc-host: cannot write " + folder.Path().string() + ": it is a folder\n");
        EXPECT_TRUE(std::filesystem::is_directory(folder.Path()));
    }
}

TEST(HostCommandLine, NamesAMissingLibraryAndWhereItWasSearched) {
    for (const wchar_t *missing : {L"fc.dll", L"vti.dll"}) {
        const TemporaryFolder folder;
        CopyBinariesWithout(missing, folder.Path());
        const std::wstring script = folder.Write(L"script.lua", "print 'ran'");
        const HostRun run = RunHost({script}, {}, folder.Path());
        const std::string name = std::filesystem::path(missing).string();
        EXPECT_EQ(run.exitCode, kCannotRun);
        EXPECT_EQ(run.out, "");
        EXPECT_TRUE(Contains(run.err, "fc-host: " + name + " is missing: it was looked for as ")) << run.err;
        EXPECT_TRUE(Contains(run.err, (folder.Path() / missing).string())) << run.err;
    }
}

TEST(HostCommandLine, MakesTheFoldersOfTheFilesThatItWrites) {
    const TemporaryFolder folder;
    const HostRun run = RunScript("host.set_setting('a', 'b')",
                                  {L"--events", folder.At(L"1\\2\\events.json"), L"--report",
                                   folder.At(L"3\\4\\report.html"), L"--settings", folder.At(L"5\\6\\settings.json")});
    EXPECT_EQ(run.exitCode, 0U) << run.err;
    for (const wchar_t *name : {L"1\\2\\events.json", L"3\\4\\report.html", L"5\\6\\settings.json"})
        EXPECT_TRUE(std::filesystem::exists(folder.At(name))) << std::filesystem::path(name).string();
}

TEST(HostCommandLine, NamesAMissingPartOfTheReport) {
    const TemporaryFolder folder;
    CopyBinariesWithout(L"", folder.Path());
    std::string image = TextOfFile(folder.At(L"fc-host.exe"));
    const std::string style("S\0T\0Y\0L\0E", 9);  // the end of the resource's name, which comes after the code's texts
    const std::size_t at = image.rfind(style);
    ASSERT_NE(at, std::string::npos);
    image[at + style.size() - 1] = 'F';
    (void)folder.Write(L"fc-host.exe", image);
    const std::wstring script = folder.Write(L"script.lua", "print 'ran'");
    const HostRun run = RunHost({L"--report", folder.At(L"report.html"), script}, {}, folder.Path());
    EXPECT_EQ(run.exitCode, kCannotRun);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "fc-host: fc-host.exe lacks its resource REPORT_STYLE\n");
    EXPECT_FALSE(std::filesystem::exists(folder.At(L"report.html")));
}

TEST(HostCommandLine, AcceptsOptionsBeforeTheScriptsName) {
    const HostRun run = RunScript("return #arg == 0 and host.get_setting('x') == '' and 3 or 4", {L"--quiet", L"--"});
    EXPECT_EQ(run.exitCode, 3U) << run.err;
}
