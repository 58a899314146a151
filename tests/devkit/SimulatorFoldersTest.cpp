#include "SystemFolders.h"

#include <cstdio>
#include <fstream>
#include <memory>

#include <gtest/gtest.h>
#include <wx/ffile.h>
#include <wx/utils.h>
#include <shlobj.h>

#include "FunctionSet.h"
#include "SimulatorTestSupport.h"
#include "WindowsFunctions.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

class SimulatedFolders : public ::testing::Test {
protected:
    SimulatedFolders() {
        InstallFolders(set, folders);
        InstallMappedPaths(set, folders);
        set.Attach(ThisProgram(), set.Names());
        set.Attach(WxLibrary());
    }

    SystemFolders folders;
    std::shared_ptr<Core> core = std::make_shared<Core>();
    FunctionSet set{core};
};

void WriteFileAt(const std::filesystem::path &path, const char *text) {
    const InsideSimulator inside;
    std::ofstream(path) << text;
}

std::string FirstWord(FILE *file) {
    char text[64] = "";
    if (file == nullptr || fscanf(file, "%63s", text) != 1)
        return {};
    (void)fclose(file);
    return text;
}

}  // namespace

TEST(SystemFolders, CreatesTheFoldersAndRemovesThemWithTheirContents) {
    std::filesystem::path root;
    {
        const SystemFolders folders;
        root = folders.Root();
        for (const auto &folder :
             {folders.Windows(), folders.System32(), folders.System32() / L"drivers", folders.Inf(), folders.Catalogs(),
              folders.ProgramData(), folders.ProgramFiles(), folders.Temp()})
            EXPECT_TRUE(std::filesystem::is_directory(folder)) << folder;
        const std::filesystem::path file = folders.System32() / L"drivers" / L"x.sys";
        WriteFileAt(file, "x");
        ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
    }
    EXPECT_FALSE(std::filesystem::exists(root));
}

TEST(SystemFolders, MapsAPathAndEverythingBelow) {
    SystemFolders folders;
    folders.MapPath(L"C:\\ProgramData\\Product\\", L"T:\\data");
    EXPECT_EQ(folders.Mapped(L"C:\\ProgramData\\Product"), L"T:\\data");
    EXPECT_EQ(folders.Mapped(L"c:/programdata/PRODUCT\\a\\b.txt"), L"T:\\data\\a\\b.txt");
    EXPECT_EQ(folders.Mapped(L"C:\\ProgramData\\Products"), std::nullopt);
    EXPECT_EQ(folders.Mapped(L"C:\\ProgramData"), std::nullopt);
    EXPECT_EQ(folders.Mapped(L""), std::nullopt);
    EXPECT_EQ(folders.Mapped(nullptr), std::nullopt);
}

TEST(SystemFolders, PrefersTheLongestMapping) {
    SystemFolders folders;
    folders.MapPath(L"C:\\A\\B", L"T:\\long");
    folders.MapPath(L"C:\\A", L"T:\\short");
    EXPECT_EQ(folders.Mapped(L"C:\\A\\B\\c"), L"T:\\long\\c");
    EXPECT_EQ(folders.Mapped(L"C:\\A\\X"), L"T:\\short\\X");
}

TEST(SystemFolders, ReplacesAMappingOfTheSamePath) {
    SystemFolders folders;
    folders.MapPath(L"C:\\A", L"T:\\first");
    folders.MapPath(L"c:/a/", L"T:\\second");
    EXPECT_EQ(folders.Mapped(L"C:\\A\\x"), L"T:\\second\\x");
}

TEST_F(SimulatedFolders, ReplaceTheSystemFolders) {
    wchar_t path[MAX_PATH] = L"";
    EXPECT_EQ(GetSystemDirectoryW(path, MAX_PATH), folders.System32().wstring().size());
    EXPECT_EQ(path, folders.System32());
    EXPECT_EQ(GetWindowsDirectoryW(path, MAX_PATH), folders.Windows().wstring().size());
    EXPECT_EQ(path, folders.Windows());
    EXPECT_EQ(GetSystemWindowsDirectoryW(path, MAX_PATH), folders.Windows().wstring().size());
    EXPECT_EQ(path, folders.Windows());
    EXPECT_EQ(GetTempPathW(MAX_PATH, path), folders.Temp().wstring().size() + 1);
    EXPECT_EQ(path, folders.Temp().wstring() + L"\\");
}

TEST_F(SimulatedFolders, ReportTheSizeNeededAndKeepASmallBuffer) {
    wchar_t path[4] = L"abc";
    const UINT needed = GetSystemDirectoryW(path, 4);
    EXPECT_EQ(needed, folders.System32().wstring().size() + 1);
    EXPECT_STREQ(path, L"abc");
    std::wstring exact(needed, L'\0');
    EXPECT_EQ(GetSystemDirectoryW(exact.data(), needed), needed - 1);
    EXPECT_EQ(GetSystemDirectoryW(exact.data(), needed - 1), needed);
}

TEST_F(SimulatedFolders, ReplaceTheShellFolders) {
    wchar_t path[MAX_PATH] = L"";
    ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_COMMON_APPDATA | CSIDL_FLAG_CREATE, nullptr, 0, path), S_OK);
    EXPECT_EQ(path, folders.ProgramData());
    ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_SYSTEM, nullptr, 0, path), S_OK);
    EXPECT_EQ(path, folders.System32());
    ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_WINDOWS, nullptr, 0, path), S_OK);
    EXPECT_EQ(path, folders.Windows());
    ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_PROGRAM_FILES, nullptr, 0, path), S_OK);
    EXPECT_EQ(path, folders.ProgramFiles());
    ASSERT_EQ(SHGetFolderPathW(nullptr, CSIDL_FONTS, nullptr, 0, path), S_OK);
    EXPECT_NE(std::wstring(path).find(L"onts"), std::wstring::npos) << "others are the real ones";
}

TEST_F(SimulatedFolders, AreNotReportedWhenAFailureIsPlanned) {
    wchar_t path[MAX_PATH] = L"";
    (void)core->faults.FailNth("SHGetFolderPathW", 1, ERROR_ACCESS_DENIED);
    (void)core->faults.FailNth("SHGetFolderPathW", 2, static_cast<DWORD>(E_FAIL));
    EXPECT_EQ(SHGetFolderPathW(nullptr, CSIDL_SYSTEM, nullptr, 0, path), E_ACCESSDENIED);
    EXPECT_EQ(SHGetFolderPathW(nullptr, CSIDL_SYSTEM, nullptr, 0, path), E_FAIL) << "a result stays as it is";
    EXPECT_STREQ(path, L"");
}

TEST_F(SimulatedFolders, AreOpenedByTheCRuntime) {
    folders.MapPath(L"Q:\\fixed", folders.ProgramData());
    WriteFileAt(folders.ProgramData() / L"a.txt", "hello");
    EXPECT_EQ(FirstWord(fopen("Q:\\fixed\\a.txt", "r")), "hello");
    EXPECT_EQ(FirstWord(_wfopen(L"q:/fixed/a.txt", L"r")), "hello");
    FILE *file = nullptr;
    ASSERT_EQ(fopen_s(&file, "Q:\\fixed\\a.txt", "r"), 0);
    EXPECT_EQ(FirstWord(file), "hello");
    file = nullptr;
    ASSERT_EQ(_wfopen_s(&file, L"Q:\\fixed\\a.txt", L"r"), 0);
    EXPECT_EQ(FirstWord(file), "hello");
    EXPECT_EQ(fopen("Q:\\fixed\\missing.txt", "r"), nullptr);
    EXPECT_EQ(fopen("Q:\\other\\a.txt", "r"), nullptr);
}

TEST_F(SimulatedFolders, AreCreatedAndRemovedBySystemCalls) {
    folders.MapPath(L"Q:\\fixed", folders.ProgramData());
    ASSERT_TRUE(CreateDirectoryW(L"Q:\\fixed\\sub", nullptr));
    EXPECT_TRUE(std::filesystem::is_directory(folders.ProgramData() / L"sub"));
    const HANDLE file =
        CreateFileW(L"Q:\\fixed\\sub\\a.bin", GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    CloseHandle(file);
    EXPECT_TRUE(std::filesystem::is_regular_file(folders.ProgramData() / L"sub" / L"a.bin"));
    EXPECT_NE(GetFileAttributesW(L"Q:\\fixed\\sub\\a.bin"), INVALID_FILE_ATTRIBUTES);
    WIN32_FILE_ATTRIBUTE_DATA data{};
    EXPECT_TRUE(GetFileAttributesExW(L"Q:\\fixed\\sub\\a.bin", GetFileExInfoStandard, &data));
    WIN32_FIND_DATAW found{};
    const HANDLE search = FindFirstFileW(L"Q:\\fixed\\sub\\*.bin", &found);
    ASSERT_NE(search, INVALID_HANDLE_VALUE);
    FindClose(search);
    EXPECT_STREQ(found.cFileName, L"a.bin");
    EXPECT_TRUE(SetFileAttributesW(L"Q:\\fixed\\sub\\a.bin", FILE_ATTRIBUTE_NORMAL));
    EXPECT_TRUE(DeleteFileW(L"Q:\\fixed\\sub\\a.bin"));
    EXPECT_TRUE(RemoveDirectoryW(L"Q:\\fixed\\sub"));
    EXPECT_FALSE(std::filesystem::exists(folders.ProgramData() / L"sub"));
}

TEST_F(SimulatedFolders, ApplyToWx) {
    folders.MapPath(L"Q:\\fixed", folders.ProgramData());
    WriteFileAt(folders.ProgramData() / L"a.txt", "hello");
    wxFFile file("Q:\\fixed\\a.txt", "r");
    wxString text;
    ASSERT_TRUE(file.IsOpened());
    ASSERT_TRUE(file.ReadAll(&text));
    EXPECT_EQ(text, "hello");
    EXPECT_EQ(wxGetOSDirectory(), wxString(folders.Windows().wstring()));
}

TEST_F(SimulatedFolders, RecordThePathsAsPassedByTheCaller) {
    folders.MapPath(L"Q:\\fixed", folders.ProgramData());
    (void)DeleteFileW(L"Q:\\fixed\\a");
    EXPECT_EQ(core->journal.Take().back().arguments, "\"Q:\\fixed\\a\"");
}
