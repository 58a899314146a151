// How the tests run the host.
#include "HostProcess.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace {

/// The folder that the next TemporaryFolder will have.
std::filesystem::path NextFolder() {
    const std::wstring last = TemporaryFolder().Path().wstring();
    const std::size_t number = last.rfind(L'-') + 1;
    return last.substr(0, number) + std::to_wstring(std::stoi(last.substr(number)) + 1);
}

TEST(HostProcess, SeesNothingOfWhatAnOlderProcessOfTheSameNumberHasLeft) {
    const std::filesystem::path left = NextFolder();
    std::filesystem::create_directories(left);
    for (const wchar_t *name : {L"in", L"out", L"err"})
        std::ofstream(left / name) << "an older run\n" << std::string(10'000, '\n');
    const HostRun run = RunHost({L"--version"});
    EXPECT_FALSE(exists(left)) << "it was not the folder of that run";
    EXPECT_EQ(run.exitCode, 0U);
    EXPECT_NE(run.out, "");
    EXPECT_LT(run.out.size(), 1'000U) << run.out;
    EXPECT_EQ(run.err, "");
}

}  // namespace
