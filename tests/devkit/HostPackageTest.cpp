// The example that reads a diagnostic package.
#include <gtest/gtest.h>

#include "HostProcess.h"

namespace {

const std::wstring kReader = TestData("examples/read-package.lua").wstring();

bool HasText(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

std::string WithoutReturns(std::string text) {
    std::erase(text, '\r');
    return text;
}

class HostPackage : public ::testing::Test {
protected:
    /// Makes the package: the script fills the zip, and may use `handle`.
    void Make(const std::string &script) {
        const std::wstring maker =
            folder.Write(L"make.lua", "require 'fc' local zip, handle = host.zip(arg[1]), host.driver_handle() " +
                                          script + " host.close_zip(zip)");
        const HostRun run = RunHost({L"--quiet", maker, folder.At(L"package.zip")});
        EXPECT_EQ(run.exitCode, 0U) << run.err;
    }

    HostRun Read(std::vector<std::wstring> arguments = {}) {
        arguments.insert(arguments.begin(), {L"--quiet", kReader, folder.At(L"package.zip")});
        HostRun run = RunHost(arguments);
        run.out = WithoutReturns(run.out);
        run.err = WithoutReturns(run.err);
        return run;
    }

    void ExpectRefusal(const std::vector<std::wstring> &arguments, const std::string &message) {
        const HostRun run = Read(arguments);
        EXPECT_EQ(run.exitCode, 1U);
        EXPECT_TRUE(HasText(run.err, message)) << run.err;
    }

    TemporaryFolder folder;
};

const std::string kDriversFiles = R"(
    host.driver.set_connections({ "192.0.2.10:53" },
        { "\2\0\1\187\192\0\2\10", "\2\0\0\80\10\2\0\192", "\32\1\13\184" .. ("\0"):rep(11) .. "\1" })
    host.driver.set_blacklist(("\203\0\113\7"):rep(20))
    host.driver.set_profile("rule one, 198.51.100.7")
    for i = 100, 130 do host.driver.set_variable(i, i) end
    assert(SLB.filter.AddDriverDiagnostics(host.dom(), handle, zip))
)";

}  // namespace

TEST_F(HostPackage, IsPrintedFileByFile) {
    Make(kDriversFiles + "zip:add('logs/agent.log', 'hello')");
    const HostRun run = Read();
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.err, "");
    for (const char *part :
         {"vta_stats.txt: what the filter driver counted, ", "    first[0]         ",
          "\nvta_variables.txt: the variables of the filter, ", "    variable[100]    100\n    variable[101]    101\n",
          "    and 11 more; --all shows them\n    174 numbers, 143 of them 0\n",
          "    udp connections = 1\n    tcp connections = 3\n",
          "    tcp[0]\n      0000  02 00 01 bb c0 00 02 0a 00 00 00 00 00 00 00 00  ................\n",
          "................\n      and 48 bytes in lines of zeros\n",
          "    blacklist bytes = 80\n      0000  cb 00 71 07 ", "      and 16 more bytes; --all shows them\n",
          "vta.tpf: the profile of the rules, 22 bytes\n      0000  72 75 6c 65 20 6f 6e 65 2c 20 31 39 38 2e 35 31  ",
          " 35 31  rule one, 198.51\n", "\nOther files\n             5 bytes  logs\\agent.log\n"})
        EXPECT_TRUE(HasText(run.out, part)) << part << "\nis not in\n" << run.out;
}

TEST_F(HostPackage, IsPrintedWholeOnRequest) {
    Make(kDriversFiles);
    const HostRun run = Read({L"--all"});
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_TRUE(HasText(run.out, "    variable[130]    130\n")) << run.out;
    EXPECT_TRUE(HasText(run.out, "      0040  cb 00 71 07 ")) << run.out;
    EXPECT_FALSE(HasText(run.out, "--all")) << run.out;
}

TEST_F(HostPackage, TellsWhichFilesAreMissing) {
    Make("zip:add('diag/vta_variables.txt', 'variable[3] = 7\\r\\n')");
    const HostRun run = Read();
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    EXPECT_EQ(run.out,
              "\ndiag\\vta_variables.txt: the variables of the filter, 17 bytes\n    variable[3]      7\n"
              "    1 numbers, 0 of them 0\n\nvta_stats.txt: not in the package\n\n"
              "vta_conn_track.txt: not in the package\n\nvta_blacklist.txt: not in the package\n\n"
              "vta.tpf: not in the package\n");
}

TEST_F(HostPackage, FindsAnAddressInEitherOrderAndAsAText) {
    Make(kDriversFiles);
    EXPECT_EQ(Read({L"--find", L"192.0.2.10"}).out,
              "vta_conn_track.txt: udp[0], at byte 0, text\n"
              "vta_conn_track.txt: tcp[0], at byte 4, network order\n"
              "vta_conn_track.txt: tcp[1], at byte 4, reversed\n"
              "192.0.2.10: 3 places\n");
    EXPECT_EQ(Read({L"--find", L"2001:db8::1"}).out,
              "vta_conn_track.txt: tcp[2], at byte 0, network order\n2001:db8::1: 1 place\n");
    EXPECT_EQ(Read({L"--find", L"443"}).out, "vta_conn_track.txt: tcp[0], at byte 2, network order\n443: 1 place\n");
    EXPECT_EQ(Read({L"--find", L"198.51.100.7"}).out,
              "vta.tpf: the profile, at byte 10, text\n198.51.100.7: 1 place\n");
    EXPECT_TRUE(
        HasText(Read({L"--find", L"7.113.0.203"}).out, "vta_blacklist.txt: the blacklist, at byte 0, reversed"));
}

TEST_F(HostPackage, DoesNotTakeAPartOfAnAddressForIt) {
    Make(kDriversFiles);
    ExpectRefusal({L"--find", L"192.0.2.1"}, "192.0.2.1 is in no connection, nor in the blacklist or the profile");
    ExpectRefusal({L"--find", L"92.0.2.10"}, "92.0.2.10 is in no connection");
}

TEST_F(HostPackage, RefusesWhatIsNoAddress) {
    Make("");
    for (const wchar_t *address : {L"192.0.2.256", L"192.0.2", L"0", L"65536", L"2001:db8", L"1::2::3", L":::", L"1:",
                                   L"::12345", L"1:2:3:4:5:6:7:8:9", L"host", L"-1"})
        ExpectRefusal({L"--find", address}, "' is neither an IPv4 or IPv6 address nor a port");
    ExpectRefusal({L"--find"}, "--find needs an address");
    ExpectRefusal({L"again"}, "unknown argument 'again'; usage: read-package.lua PACKAGE.zip [--find ADDRESS] [--all]");
}

TEST_F(HostPackage, PrintsLinesOfAnotherFormAsTheyAre) {
    Make(
        "zip:add('vta_conn_track.txt', 'tcp 192.0.2.10:443 established\\n' .. ('x'):rep(200))"
        "zip:add('vta_stats.txt', 'dropped frames: 5\\nfirst[1] = 0\\n')");
    const HostRun run = Read();
    EXPECT_TRUE(HasText(run.out, "    tcp 192.0.2.10:443 established\n    " + std::string(120, 'x') + " ...\n"))
        << run.out;
    EXPECT_TRUE(HasText(run.out, "    dropped frames: 5\n    1 numbers, 1 of them 0\n")) << run.out;
}

TEST_F(HostPackage, GetsNothingToTheTerminalThatCannotBePrinted) {
    Make(
        "zip:add('evil\\27[31m\\r.txt', 'x') zip:add('vta_stats.txt', 'a\\27]0;title\\7b\\194\\155c\\n')"
        "zip:add('vta_conn_track.txt', 'tcp[0] = 1b5b3\\ntcp[1] = 1b5b33316d\\n') zip:add('vta.tpf', '\\27[2J')");
    const HostRun run = Read({L"--all"});
    ASSERT_EQ(run.exitCode, 0U) << run.err;
    for (const char character : run.out)
        EXPECT_TRUE(character == '\n' || (character >= ' ' && character <= '~')) << static_cast<int>(character);
    EXPECT_TRUE(HasText(run.out, "evil.[31m")) << run.out;
    EXPECT_TRUE(HasText(run.out, "    tcp[0] = 1b5b3\n    tcp[1]\n      0000  1b 5b 33 31 6d ")) << run.out;
}

TEST_F(HostPackage, SaysWhatIsWrongWithAFileThatIsNoWholePackage) {
    ExpectRefusal({}, "read-package: cannot open ");
    (void)folder.Write(L"package.zip", "no zip");
    ExpectRefusal({}, "package.zip: it is no zip file\n");
    Make(kDriversFiles);
    const std::string whole = TextOfFile(folder.At(L"package.zip"));
    for (const std::size_t size : {whole.size() / 4, whole.size() / 2, whole.size() - 30}) {
        (void)folder.Write(L"package.zip", whole.substr(0, size));
        ExpectRefusal({}, "read-package: cannot read ");
    }
    (void)folder.Write(L"package.zip", whole.substr(0, 20));
    ExpectRefusal({}, "it is no zip file, though it begins like one: it may be cut off\n");
    ExpectRefusal({L"--find", L"443"}, "it may be cut off\n");
}

TEST_F(HostPackage, OfRandomBytesIsReadOrRefusedAndNothingElse) {
    Make(kDriversFiles);
    const std::string whole = TextOfFile(folder.At(L"package.zip"));
    for (unsigned seed = 1; seed <= 8; ++seed) {
        std::string broken = whole;
        unsigned state = seed;
        for (int change = 0; change < 20; ++change) {
            state = state * 1'664'525U + 1'013'904'223U;
            broken[(state >> 4) % broken.size()] = static_cast<char>(state >> 20);
        }
        (void)folder.Write(L"package.zip", broken);
        const HostRun run = Read();
        EXPECT_TRUE(run.exitCode == 0 || (run.exitCode == 1 && HasText(run.err, "read-package: cannot read ")))
            << "seed " << seed << ": " << run.exitCode << run.err;
    }
}
