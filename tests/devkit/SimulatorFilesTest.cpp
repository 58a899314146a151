// Files through the C runtime and through system calls: what can be made to fail, and the effect.
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

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
    [[nodiscard]] std::size_t Things(const char *kind) { return simulation.GetBalance().Take().Count(kind); }
    [[nodiscard]] std::size_t OpenFiles() { return Things(Kind::kFile); }
    /// As a caller names it.
    static std::wstring Path(const std::wstring &name) { return L"C:\\ProgramData\\Product\\" + name; }
    void WriteText(const std::wstring &name, const char *text) {
        const InsideSimulator inside;
        std::ofstream(simulation.GetFolders().ProgramData() / name) << text;
    }
    [[nodiscard]] bool Exists(const std::wstring &name) {
        const InsideSimulator inside;
        return std::filesystem::exists(simulation.GetFolders().ProgramData() / name);
    }

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

TEST_F(SimulatedFiles, AreMappedAndCounted) {
    WriteText(L"a.txt", "hello");
    const HANDLE file =
        CreateFileW(Path(L"a.txt").c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    const HANDLE mapping = CreateFileMappingW(file, nullptr, PAGE_READONLY, 0, 0, nullptr);
    ASSERT_NE(mapping, nullptr);
    EXPECT_EQ(Things(Kind::kHandle), 2U);
    Fail("MapViewOfFile", ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    const void *view = MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, 0);
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(Things(Kind::kView), 1U);
    EXPECT_EQ(std::string(static_cast<const char *>(view), 5), "hello");
    EXPECT_FALSE(IsTextUnicode(view, 5, nullptr));
    EXPECT_TRUE(UnmapViewOfFile(view));
    EXPECT_EQ(Things(Kind::kView), 0U);
    EXPECT_TRUE(CloseHandle(mapping));
    EXPECT_TRUE(CloseHandle(file));
    EXPECT_EQ(Things(Kind::kHandle), 0U);
    for (const char *function : {"CreateFileMappingW", "MapViewOfFile", "IsTextUnicode", "UnmapViewOfFile"})
        EXPECT_GE(simulation.GetJournal().Count(function), 1U) << function;
}

TEST_F(SimulatedFiles, AreFoundUntilASearchFails) {
    WriteText(L"a1.txt", "");
    WriteText(L"a2.txt", "");
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(Path(L"a*.txt").c_str(), &found);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    Fail("FindNextFileW", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(FindNextFileW(search, &found));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(FindNextFileW(search, &found));
    EXPECT_FALSE(FindNextFileW(search, &found));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_FILES));
    EXPECT_TRUE(FindClose(search));
}

TEST_F(SimulatedFiles, AreCopiedAndMovedByMappedPaths) {
    WriteText(L"a.txt", "hello");
    EXPECT_TRUE(CopyFileW(Path(L"a.txt").c_str(), Path(L"b.txt").c_str(), TRUE));
    EXPECT_TRUE(Exists(L"a.txt"));
    EXPECT_TRUE(MoveFileExW(Path(L"b.txt").c_str(), Path(L"c.txt").c_str(), 0));
    EXPECT_FALSE(Exists(L"b.txt"));
    EXPECT_TRUE(Exists(L"c.txt"));
    EXPECT_TRUE(simulation.GetFilesInUse().LeftToBoot().empty());
}

TEST_F(SimulatedFiles, CannotBeDeletedOrMovedWhileTheyAreInUse) {
    FilesInUse &inUse = simulation.GetFilesInUse();
    WriteText(L"a.txt", "hello");
    inUse.Hold(simulation.GetFolders().ProgramData() / L"A.TXT");
    EXPECT_FALSE(DeleteFileW(Path(L"a.txt").c_str()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    EXPECT_FALSE(MoveFileExW(Path(L"a.txt").c_str(), Path(L"b.txt").c_str(), 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
    inUse.Hold(simulation.GetFolders().ProgramData() / L"a.txt", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(DeleteFileW(Path(L"a.txt").c_str()));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(Exists(L"a.txt"));
    inUse.Release(simulation.GetFolders().ProgramData() / L"a.txt");
    EXPECT_TRUE(DeleteFileW(Path(L"a.txt").c_str()));
    EXPECT_FALSE(Exists(L"a.txt"));
}

TEST_F(SimulatedFiles, AreScheduledForTheNextBootOnlyInTheSimulation) {
    WriteText(L"a.txt", "hello");
    EXPECT_TRUE(MoveFileExW(Path(L"a.txt").c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT));
    EXPECT_TRUE(MoveFileExW(L"X:\\b.txt", Path(L"c.txt").c_str(), MOVEFILE_DELAY_UNTIL_REBOOT));
    EXPECT_FALSE(MoveFileExW(nullptr, nullptr, MOVEFILE_DELAY_UNTIL_REBOOT));
    const std::filesystem::path folder = simulation.GetFolders().ProgramData();
    const std::vector<MoveAtBoot> left{{(folder / L"a.txt").wstring(), L""},
                                       {L"X:\\b.txt", (folder / L"c.txt").wstring()}};
    EXPECT_EQ(simulation.GetFilesInUse().LeftToBoot(), left);
    EXPECT_TRUE(Exists(L"a.txt"));
    Fail("MoveFileExW", ERROR_ACCESS_DENIED);
    EXPECT_FALSE(MoveFileExW(Path(L"a.txt").c_str(), nullptr, MOVEFILE_DELAY_UNTIL_REBOOT));
    EXPECT_EQ(simulation.GetFilesInUse().LeftToBoot(), left);
}

#if defined(__MINGW32__)
// MinGW's own fprintf writes character by character and ignores failures: a program that wants to know whether its text
// was written uses fputs or fwrite.
TEST_F(SimulatedFiles, MakeFprintfReportSuccessForAFailure) {
    FILE *file = Open("w");
    ASSERT_NE(file, nullptr);
    const auto plan = simulation.GetFaults().FailEvery("fputc", ENOSPC);
    EXPECT_EQ(std::fprintf(file, "%s\n", "text"), 5);
    EXPECT_EQ(plan->Hits(), 5U);
    EXPECT_EQ(std::fclose(file), 0);
    EXPECT_EQ(FileSize(), 0U);
}
#endif
