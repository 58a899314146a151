// Reading and writing by the C runtime: what of it can be made to fail, and what becomes of that.
#include <cerrno>
#include <cstdio>
#include <string>

#include <gtest/gtest.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

class SimulatedFiles : public ::testing::Test {
protected:
    SimulatedFiles() {
        simulation.GetFolders().MapPath(L"C:\\ProgramData\\Product", simulation.GetFolders().ProgramData());
        (void)simulation.Attach(ThisProgram());
    }

    static FILE *Open(const char *mode) { return std::fopen("C:\\ProgramData\\Product\\a.txt", mode); }
    void Fail(const char *function, int error) {
        (void)simulation.GetFaults().FailNth(function, 1, static_cast<DWORD>(error));
        errno = 0;
    }
    [[nodiscard]] std::uintmax_t FileSize() {
        const InsideSimulator inside;
        return std::filesystem::file_size(simulation.GetFolders().ProgramData() / L"a.txt");
    }
    [[nodiscard]] std::size_t OpenFiles() { return simulation.GetBalance().Take().Count(Kind::kFile); }

    Simulation simulation{{.registry = false, .folders = true, .balance = true, .machine = false}};
};

}  // namespace

TEST_F(SimulatedFiles, FailToOpenAsPlanned) {
    Fail("fopen", EACCES);
    EXPECT_EQ(Open("w"), nullptr);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(OpenFiles(), 0U);
}

TEST_F(SimulatedFiles, FailToBeWrittenAsPlanned) {
    FILE *file = Open("w");
    ASSERT_NE(file, nullptr);
    Fail("fputs", ENOSPC);
    EXPECT_EQ(std::fputs("text\n", file), EOF);
    EXPECT_EQ(errno, ENOSPC);
    Fail("fputc", EIO);
    EXPECT_EQ(std::fputc('\n', file), EOF);
    EXPECT_EQ(errno, EIO);
    Fail("fwrite", ENOSPC);
    EXPECT_EQ(std::fwrite("text", 1, 4, file), 0U);
    EXPECT_EQ(errno, ENOSPC);
    Fail("fflush", ENOSPC);
    EXPECT_EQ(std::fflush(file), EOF);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(std::fclose(file), 0);
    EXPECT_EQ(FileSize(), 0U);
}

TEST_F(SimulatedFiles, FailToBeReadAsPlanned) {
    FILE *file = Open("w+");
    ASSERT_NE(file, nullptr);
    ASSERT_GE(std::fputs("one\ntwo\n", file), 0);
    std::rewind(file);
    char line[16] = "before";
    Fail("fgets", EIO);
    EXPECT_EQ(std::fgets(line, sizeof line, file), nullptr);
    EXPECT_EQ(errno, EIO);
    EXPECT_STREQ(line, "before");
    Fail("ferror", 1);
    EXPECT_NE(std::ferror(file), 0);
    EXPECT_EQ(std::ferror(file), 0);
    EXPECT_EQ(std::fgets(line, sizeof line, file), line);
    EXPECT_STREQ(line, "one\n");
    EXPECT_EQ(std::fclose(file), 0);
}

TEST_F(SimulatedFiles, AreCountedUntilTheyAreClosed) {
    FILE *file = Open("w");
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(OpenFiles(), 1U);
    EXPECT_EQ(std::fclose(file), 0);
    EXPECT_EQ(OpenFiles(), 0U);
}

#if defined(__MINGW32__)
// MinGW's own fprintf writes letter by letter and does not look at what came of it: a program that wants to know
// whether its text was written says so by fputs or fwrite.
TEST_F(SimulatedFiles, LetFprintfTakeAFailureForSuccess) {
    FILE *file = Open("w");
    ASSERT_NE(file, nullptr);
    const auto plan = simulation.GetFaults().FailEvery("fputc", ENOSPC);
    EXPECT_EQ(std::fprintf(file, "%s\n", "text"), 5);
    EXPECT_EQ(plan->Hits(), 5U);
    EXPECT_EQ(std::fclose(file), 0);
    EXPECT_EQ(FileSize(), 0U);
}
#endif
