// The example that builds a diagnostic package, and the functions of the host that it uses.
#include <gtest/gtest.h>

#include "HostProcess.h"
#include "devkit/host/ZipFile.h"

namespace {

const std::wstring kDiagnosticsExample = TestData("examples/diagnostics.lua").wstring();

bool HasText(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

class HostDiagnostics : public ::testing::Test {
protected:
    void ExpectFails(const std::string &script, const std::string &message) {
        const HostRun run = RunScript(script);
        EXPECT_EQ(run.exitCode, 1U) << script;
        EXPECT_TRUE(HasText(run.err, message)) << run.err;
    }

    TemporaryFolder folder;
};

TEST_F(HostDiagnostics, TheExampleShowsEachFileOfItsPackage) {
    const HostRun run = RunHost({L"--quiet", kDiagnosticsExample, L"--out", folder.At(L"out")});
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
    std::string error;
    const auto files = ReadZipFile(wxString((folder.Path() / "out" / "diagnostics.zip").wstring()), error);
    ASSERT_TRUE(files.has_value()) << error;
    ASSERT_EQ(files->size(), 5U);
    for (const ZippedFile &file : *files) {
        EXPECT_TRUE(HasText(run.out, file.name)) << run.out;
        EXPECT_TRUE(HasText(run.out, " " + std::to_string(file.content.size()) + " bytes\n")) << run.out;
    }
    EXPECT_TRUE(HasText(files->at(2).content, "udp connections = 12\r\n"));
    EXPECT_TRUE(HasText(files->at(2).content, "tcp connections = 30\r\n"));
    EXPECT_EQ(files->at(4).content.substr(0, 10), std::string("rule\0rule\0", 10));
    EXPECT_EQ(files->at(4).content.size(), 1000U);
    EXPECT_TRUE(HasText(run.out, "    variable[0] = 0\n    variable[1] = 1\n    variable[2] = 4\n")) << run.out;
    EXPECT_TRUE(HasText(run.out, "Variable 62 is 0 after the profile was read.")) << run.out;
}

TEST_F(HostDiagnostics, TheExampleNamesAnUnknownArgument) {
    const HostRun run = RunHost({kDiagnosticsExample, L"--help"});
    EXPECT_EQ(run.exitCode, 1U);
    EXPECT_TRUE(HasText(run.err, "diagnostics: unknown argument '--help'; usage: diagnostics.lua [--out DIR]"))
        << run.err;
}

TEST_F(HostDiagnostics, InvalidConnectionsAreErrors) {
    ExpectFails("host.driver.set_connections({}, nil)", "bad argument #2");
    ExpectFails("host.driver.set_connections({ 1 }, {})", "a connection is a string of at most 64 bytes");
    ExpectFails("host.driver.set_connections({}, { ('x'):rep(65) })", "a connection is a string of at most 64 bytes");
    ExpectFails("local t = {} for i = 1, 65536 do t[i] = '' end host.driver.set_connections(t, {})",
                "at most 65535 connections");
}

TEST_F(HostDiagnostics, AFileThatIsNotAZipCannotBeRead) {
    ExpectFails("host.read_zip('none.zip')", "cannot open none.zip");
    (void)folder.Write(L"text.zip", "no zip");
    const std::string path = (folder.Path() / "text.zip").generic_string();
    ExpectFails("host.read_zip('" + path + "')", "cannot read " + path);
}

}  // namespace
