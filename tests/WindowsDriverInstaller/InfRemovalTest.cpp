// The INF files that the system copied: which are found, how they are removed, and what happens to those that can't be.
#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>
#include <winioctl.h>

#include "ImportTable.h"
#include "RemovalFixture.h"
#include "WindowsDriverInstaller/cleanup/ReadView.h"
#include "WindowsFunctions.h"

namespace {

using Lines = std::vector<std::string>;

std::string Repeat(const std::string &text, int times) {
    std::string repeated;
    for (int i = 0; i < times; ++i)
        repeated += text;
    return repeated;
}

/// The component stays, so that the files decide the result.
class InfRemoval : public RemovalFixture {
protected:
    InfRemoval() { KeepFilterComponent(); }

    void LackTheSetupFunction() { simulation().GetSetup().Lack("SetupUninstallOEMInfW"); }
    [[nodiscard]] std::filesystem::path Inf(const std::wstring &name) { return simulation().GetFolders().Inf() / name; }
    [[nodiscard]] std::filesystem::path Catalog(const std::wstring &name) {
        return simulation().GetFolders().Catalogs() / name;
    }
    /// The lines of the step, without the one that says that the file is one of the driver's.
    static Lines LinesOfFiles(const Removal &removal) {
        Lines lines = removal.ThreadLog();
        std::erase_if(lines, [](const std::string &line) {
            return line.find("OEMInf('") == line.npos && line.find("Unable to delete") == line.npos;
        });
        return lines;
    }
    static Lines Matches(const Removal &removal) {
        Lines lines = removal.ThreadLog();
        std::erase_if(lines, [](const std::string &line) { return !line.starts_with("  Matched "); });
        return lines;
    }
    std::string Match(const std::string &driver, const std::wstring &name) {
        return "  Matched '" + driver + "' in file '" + Inf(name).string() + "'. Deleting this inf+pnf+cat.";
    }
    /// A file that has nothing but its beginning, and the ten names at its very end.
    void PutLargeInf(const std::wstring &name, std::int64_t size) {
        const std::string names = InfNaming("qbimvta", 10);
        PutInf(name, std::string(4096, ' '));
        const HANDLE file = CreateFileW(Inf(name).c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr);
        ASSERT_NE(file, INVALID_HANDLE_VALUE);
        DWORD written = 0;
        (void)DeviceIoControl(file, FSCTL_SET_SPARSE, nullptr, 0, nullptr, 0, &written, nullptr);
        LARGE_INTEGER begin{};
        begin.QuadPart = size - static_cast<std::int64_t>(names.size());
        const bool done = SetFilePointerEx(file, begin, nullptr, FILE_BEGIN) &&
                          WriteFile(file, names.data(), static_cast<DWORD>(names.size()), &written, nullptr);
        const DWORD error = GetLastError();
        CloseHandle(file);
        ASSERT_TRUE(done) << "the file system has no such file: error " << error;
        ASSERT_EQ(std::filesystem::file_size(Inf(name)), static_cast<std::uintmax_t>(size));
    }
    /// Whether a file of that content is removed, with nothing else of the drivers present.
    bool Goes(const std::string &content) {
        std::filesystem::remove(Inf(L"oem1.inf"));
        std::filesystem::remove(Inf(L"oem2.inf"));
        PutInf(L"oem7.inf", content);
        EXPECT_TRUE(Uninstall().result);
        return !HasInf(L"oem7.inf");
    }
};

// --- by the setup library ---

TEST_F(InfRemoval, LeavesTheFilesToTheSetupLibrary) {
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Calls({"SetupUninstallOEMInfW"}), (Lines{R"(SetupUninstallOEMInfW("oem1.inf", 1, null))",
                                                       R"(SetupUninstallOEMInfW("oem2.inf", 1, null))"}));
    EXPECT_EQ(Matches(removal), (Lines{Match("qbimvta", L"oem1.inf"), Match("qbimwfp", L"oem2.inf")}));
    EXPECT_EQ(Calls({"DeleteFileW", "MoveFileExW"}), Lines{});
}

TEST_F(InfRemoval, LogsWhyTheSetupLibraryKeepsAFileAndContinues) {
    simulation().GetSetup().uninstallError = ERROR_ACCESS_DENIED;
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "a file that stays is no failure";
    EXPECT_EQ(LinesOfFiles(removal), (Lines{"  SetupUninstallOEMInf('oem1.inf') returned 0x5",
                                            "  SetupUninstallOEMInf('oem2.inf') returned 0x5"}));
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_EQ(Calls({"DeleteFileW", "MoveFileExW"}), Lines{}) << "it is not removed by hand";
}

TEST_F(InfRemoval, MakesAFileWritableBeforeItIsUninstalled) {
    simulation().GetSetup().uninstallError = ERROR_ACCESS_DENIED;
    ASSERT_TRUE(SetFileAttributesW(Inf(L"oem1.inf").c_str(), FILE_ATTRIBUTE_READONLY));
    ASSERT_TRUE(SetFileAttributesW(Inf(L"oem3.inf").c_str(), FILE_ATTRIBUTE_READONLY));
    (void)Uninstall();
    EXPECT_EQ(GetFileAttributesW(Inf(L"oem1.inf").c_str()) & FILE_ATTRIBUTE_READONLY, 0U);
    EXPECT_NE(GetFileAttributesW(Inf(L"oem3.inf").c_str()) & FILE_ATTRIBUTE_READONLY, 0U)
        << "it belongs to another driver";
    SetFileAttributesW(Inf(L"oem3.inf").c_str(), FILE_ATTRIBUTE_NORMAL);
}

// --- by hand ---

TEST_F(InfRemoval, DeletesPnfInfAndCatalogueByHandInThisOrder) {
    LackTheSetupFunction();
    std::filesystem::remove(Inf(L"oem2.inf"));
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    const auto clear = [](const std::filesystem::path &file) {
        return "SetFileAttributesW(\"" + file.string() + "\", 128)";
    };
    const auto remove = [](const std::filesystem::path &file) { return "DeleteFileW(\"" + file.string() + "\")"; };
    EXPECT_EQ(
        Calls({"SetFileAttributesW", "DeleteFileW", "MoveFileExW"}),
        (Lines{clear(Inf(L"oem1.inf")), clear(Inf(L"oem1.pnf")), remove(Inf(L"oem1.pnf")), clear(Inf(L"oem1.inf")),
               remove(Inf(L"oem1.inf")), clear(Catalog(L"oem1.cat")), remove(Catalog(L"oem1.cat"))}));
    EXPECT_FALSE(exists(Inf(L"oem1.pnf")));
    EXPECT_FALSE(exists(Inf(L"oem1.inf")));
    EXPECT_FALSE(exists(Catalog(L"oem1.cat")));
    EXPECT_TRUE(exists(Inf(L"oem3.inf")));
    EXPECT_TRUE(exists(Inf(L"oem3.pnf")));
    EXPECT_TRUE(exists(Catalog(L"oem3.cat")));
}

TEST_F(InfRemoval, DeletesReadOnlyFilesByHand) {
    LackTheSetupFunction();
    const std::vector<std::filesystem::path> files{Inf(L"oem1.pnf"), Inf(L"oem1.inf"), Catalog(L"oem1.cat")};
    for (const std::filesystem::path &file : files)
        ASSERT_TRUE(SetFileAttributesW(file.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_TRUE(Uninstall().result);
    for (const std::filesystem::path &file : files)
        EXPECT_FALSE(exists(file)) << file;
    EXPECT_TRUE(simulation().GetFilesInUse().LeftToBoot().empty());
}

TEST_F(InfRemoval, PostponesFilesInUseToTheNextBootAndDeletesTheOthers) {
    for (const char *extension : {".pnf", ".inf", ".cat"}) {
        SCOPED_TRACE(extension);
        InstallDrivers();
        LackTheSetupFunction();
        const std::filesystem::path name = std::string("oem1") + extension;
        const std::filesystem::path inUse = name.extension() == L".cat" ? Catalog(name.wstring()) : Inf(name.wstring());
        simulation().GetFilesInUse().Hold(inUse);
        const Removal removal = Uninstall();
        EXPECT_TRUE(removal.result);
        EXPECT_EQ(LinesOfFiles(removal), Lines{});
        EXPECT_EQ(simulation().GetFilesInUse().LeftToBoot().back(), (Simulator::MoveAtBoot{inUse.wstring(), L""}));
        for (const std::filesystem::path &file : {Inf(L"oem1.pnf"), Inf(L"oem1.inf"), Catalog(L"oem1.cat")})
            EXPECT_EQ(exists(file), file == inUse) << file;
        simulation().GetFilesInUse().Release(inUse);
    }
    EXPECT_EQ(simulation().GetFilesInUse().LeftToBoot().size(), 3U);
}

TEST_F(InfRemoval, AsksTheSystemToDeleteAFileAtTheNextBoot) {
    LackTheSetupFunction();
    simulation().GetFilesInUse().Hold(Inf(L"oem1.inf"));
    (void)Uninstall();
    EXPECT_EQ(Calls({"MoveFileExW"}), Lines{"MoveFileExW(\"" + Inf(L"oem1.inf").string() + "\", null, 4)"});
}

TEST_F(InfRemoval, PostponesAMissingCatalogueToTheNextBoot) {
    LackTheSetupFunction();
    std::filesystem::remove(Catalog(L"oem1.cat"));
    EXPECT_TRUE(Uninstall().result);
    EXPECT_EQ(simulation().GetFilesInUse().LeftToBoot(),
              (std::vector<Simulator::MoveAtBoot>{{Catalog(L"oem1.cat").wstring(), L""}}));
}

TEST_F(InfRemoval, LogsAFileThatCannotEvenBePostponedAndContinues) {
    LackTheSetupFunction();
    simulation().GetFilesInUse().Hold(Inf(L"oem1.pnf"));
    const auto plan = simulation().GetFaults().FailEvery("MoveFileExW", ERROR_ACCESS_DENIED);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "a file that stays is no failure";
    EXPECT_EQ(LinesOfFiles(removal), Lines{"  Unable to delete file '" + Inf(L"oem1.pnf").string() + "': 0x5"});
    EXPECT_TRUE(exists(Inf(L"oem1.pnf")));
    EXPECT_FALSE(exists(Inf(L"oem1.inf")));
    EXPECT_FALSE(exists(Catalog(L"oem1.cat")));
    EXPECT_FALSE(exists(Inf(L"oem2.inf")));
}

// --- the folders ---

class InfFolderLookup : public InfRemoval {
protected:
    InfFolderLookup() {
        simulation().GetFolders().MapPath(L"c:\\winnt\\inf", simulation().GetFolders().Inf());
        simulation().GetFolders().MapPath(L"c:\\winnt\\system32\\CatRoot\\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}",
                                          simulation().GetFolders().Catalogs());
        std::filesystem::remove(Inf(L"oem2.inf"));
    }
    /// @param lookup  1 for the Windows folder, 2 for the system folder, 0 for both.
    void FailLookup(unsigned lookup) {
        if (lookup == 0)
            (void)simulation().GetFaults().FailEvery("SHGetFolderPathW", static_cast<DWORD>(E_FAIL));
        else
            (void)simulation().GetFaults().FailNth("SHGetFolderPathW", lookup, static_cast<DWORD>(E_FAIL));
    }
    const std::string lookups[2] = {"SHGetFolderPathW(null, 36, null, 0, *)", "SHGetFolderPathW(null, 37, null, 0, *)"};
};

TEST_F(InfFolderLookup, AsksForTheWindowsFolderAndThenForTheSystemFolder) {
    (void)Uninstall();
    EXPECT_EQ(Calls({"SHGetFolderPathW"}), (Lines{lookups[0], lookups[1]}));
}

TEST_F(InfFolderLookup, UsesTheOldFolderOfInfFilesWhenTheWindowsFolderIsUnknown) {
    LackTheSetupFunction();
    FailLookup(1);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result) << "the first look-up doesn't count";
    EXPECT_EQ(Matches(removal),
              Lines{R"(  Matched 'qbimvta' in file 'c:\winnt\inf\oem1.inf'. Deleting this inf+pnf+cat.)"});
    EXPECT_EQ(Calls({"DeleteFileW"}),
              (Lines{R"(DeleteFileW("c:\winnt\inf\oem1.pnf"))", R"(DeleteFileW("c:\winnt\inf\oem1.inf"))",
                     "DeleteFileW(\"" + Catalog(L"oem1.cat").string() + "\")"}));
    EXPECT_FALSE(HasInf(L"oem1.inf"));
    EXPECT_EQ(Calls({"FindFirstFileW"}), Lines{R"(FindFirstFileW("c:\winnt\inf\oem*.inf", *))"});
}

TEST_F(InfFolderLookup, UsesTheOldFolderOfCataloguesAndFailsWhenTheSystemFolderIsUnknown) {
    LackTheSetupFunction();
    FailLookup(2);
    const Removal removal = Uninstall();
    EXPECT_FALSE(removal.result) << "the second look-up decides";
    EXPECT_EQ(removal.events, Lines{});
    EXPECT_EQ(Calls({"DeleteFileW"}).back(),
              R"(DeleteFileW("c:\winnt\system32\CatRoot\{F750E6C3-38EE-11D1-85E5-00C04FC295EE}\oem1.cat"))");
    EXPECT_FALSE(HasInf(L"oem1.inf")) << "the files are removed anyway";
    EXPECT_FALSE(exists(Catalog(L"oem1.cat")));
}

TEST_F(InfFolderLookup, FailsEvenIfTheSetupLibraryRemovedTheFiles) {
    FailLookup(0);
    EXPECT_FALSE(Uninstall().result);
    EXPECT_FALSE(HasInf(L"oem1.inf"));
}

TEST_F(InfFolderLookup, ForgetsItsFailureWhenADeletionIsPostponedToTheNextBoot) {
    LackTheSetupFunction();
    simulation().GetFilesInUse().Hold(Inf(L"oem1.inf"));
    FailLookup(2);
    EXPECT_TRUE(Uninstall().result);
}

TEST_F(InfFolderLookup, DoesNotAffectTheResultWhenTheComponentIsGone) {
    InstallDrivers();
    FailLookup(2);
    EXPECT_TRUE(Uninstall().result) << "the orphans do";
}

// --- which files are scanned ---

TEST_F(InfRemoval, SucceedsWithoutCopiedFiles) {
    for (const wchar_t *name : {L"oem1.inf", L"oem2.inf", L"oem3.inf"})
        std::filesystem::remove(Inf(name));
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(Calls({"FindNextFileW", "FindClose", "CreateFileW"}), Lines{});
}

TEST_F(InfRemoval, EndsItsSearchWithinTheStep) {
    (void)Uninstall();
    const Lines calls = Calls({"FindNextFileW", "FindClose", "SetEvent"});
    const auto closed =
        std::find_if(calls.begin(), calls.end(), [](const std::string &call) { return call.starts_with("FindClose"); });
    ASSERT_NE(closed, calls.begin());
    ASSERT_NE(closed, calls.end());
    EXPECT_TRUE(closed[-1].starts_with("FindNextFileW")) << "the step ended first: " << closed[-1];
}

TEST_F(InfRemoval, ScansOnlyCopiedFiles) {
    PutInf(L"netqbimvta.inf", InfNaming("qbimvta", 10));
    PutInf(L"oem4.txt", InfNaming("qbimvta", 10));
    (void)Uninstall();
    EXPECT_TRUE(HasInf(L"netqbimvta.inf"));
    EXPECT_TRUE(HasInf(L"oem4.txt"));
    EXPECT_EQ(Calls({"CreateFileW"}).size(), 3U);
    EXPECT_EQ(balance().Take().Count(Simulator::Kind::kFind), 0U);
}

TEST_F(InfRemoval, OpensAFileForSequentialReading) {
    for (const wchar_t *name : {L"oem1.inf", L"oem2.inf"})
        std::filesystem::remove(Inf(name));
    (void)Uninstall();
    EXPECT_EQ(Calls({"CreateFileW", "CreateFileMappingW", "MapViewOfFile"}),
              (Lines{"CreateFileW(\"" + Inf(L"oem3.inf").string() + "\", 2147483648, 1, null, 3, 134217728, null)",
                     "CreateFileMappingW(*, null, 2, 0, 0, null)", "MapViewOfFile(*, 4, 0, 0, 0)"}));
}

TEST_F(InfRemoval, SkipsEmptyFilesAndFolders) {
    PutInf(L"oem4.inf", "");
    std::filesystem::create_directory(Inf(L"oem5.inf"));
    EXPECT_TRUE(Uninstall().result);
    const Lines opened = Calls({"CreateFileW"});
    EXPECT_EQ(opened.size(), 3U) << "the fixture's";
    for (const std::string &call : opened)
        EXPECT_TRUE(call.find("oem4") == call.npos && call.find("oem5") == call.npos) << call;
}

TEST_F(InfRemoval, ReadsFilesOfLessThanFourGibibytesToTheirEndAndOpensNoLargerOnes) {
    constexpr std::int64_t twoGibibytes = std::int64_t{1} << 31;
    PutLargeInf(L"oem4.inf", twoGibibytes);
    PutLargeInf(L"oem5.inf", 2 * twoGibibytes - 1);
    PutLargeInf(L"oem6.inf", 2 * twoGibibytes);
    const Removal removal = Uninstall();
    EXPECT_TRUE(removal.result);
    const Lines matches = Matches(removal);
    EXPECT_EQ(std::count(matches.begin(), matches.end(), Match("qbimvta", L"oem4.inf")), 1);
    EXPECT_EQ(std::count(matches.begin(), matches.end(), Match("qbimvta", L"oem5.inf")), 1);
    EXPECT_FALSE(HasInf(L"oem4.inf"));
    EXPECT_FALSE(HasInf(L"oem5.inf"));
    EXPECT_TRUE(HasInf(L"oem6.inf"));
    for (const std::string &call : Calls({"CreateFileW"}))
        EXPECT_EQ(call.find("oem6"), call.npos) << call;
    EXPECT_FALSE(HasInf(L"oem1.inf"));
}

class InfThatCannotBeRead : public RemovalFixture, public testing::WithParamInterface<const char *> {};

TEST_P(InfThatCannotBeRead, MatchesNoDriverAndLeavesNothingOpen) {
    const auto plan = simulation().GetFaults().FailNth(GetParam(), 1, ERROR_NOT_ENOUGH_MEMORY);
    const Removal removal = Uninstall();
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(removal.result);
    EXPECT_EQ(removal.events, Lines{});
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_FALSE(HasInf(L"oem2.inf")) << "the next one is read";
    std::size_t files = 0;
    for (const Simulator::BalanceItem &item : balance().Take().items)
        files += std::set<std::string>{"CreateFileW", "CreateFileMappingW", "MapViewOfFile"}.count(item.function);
    EXPECT_EQ(files, 0U);
}

INSTANTIATE_TEST_SUITE_P(Removal, InfThatCannotBeRead,
                         testing::Values("CreateFileW", "GetFileSizeEx", "CreateFileMappingW", "MapViewOfFile"),
                         [](const auto &tested) { return std::string(tested.param); });

/// While it exists, pages that can't be accessed raise exceptions with this code.
DWORD raisedCode = EXCEPTION_ACCESS_VIOLATION;
std::atomic<int> raised{0};

LONG CALLBACK Recode(EXCEPTION_POINTERS *exception) {
    if (exception->ExceptionRecord->ExceptionCode == EXCEPTION_ACCESS_VIOLATION) {
        exception->ExceptionRecord->ExceptionCode = raisedCode;
        ++raised;
    }
    return EXCEPTION_CONTINUE_SEARCH;
}

/// A file is mapped to a view whose second page can't be read.
class InfOnABadSector : public RemovalFixture, public testing::WithParamInterface<DWORD> {
protected:
    InfOnABadSector() {
        raisedCode = GetParam();
        m_handler = AddVectoredExceptionHandler(1, &Recode);
        simulation().Functions().Put<Simulator::System::MapViewOfFile>(
            [this](const auto &next, auto... arguments) -> void * { return m_bad ? m_view : next(arguments...); });
        simulation().Functions().Put<Simulator::System::UnmapViewOfFile>(
            [this](const auto &next, const void *view) -> BOOL {
                m_unmapped = m_unmapped || view == m_view;
                return view == m_view ? TRUE : next(view);
            });
        DWORD before = 0;
        EXPECT_TRUE(VirtualProtect(m_view + kPage, kPage, PAGE_NOACCESS, &before));
    }
    ~InfOnABadSector() override {
        (void)RemoveVectoredExceptionHandler(m_handler);
        (void)VirtualFree(m_view, 0, MEM_RELEASE);
    }
    /// Whether an INF file of two pages is removed that names the driver so often on the first page.
    bool Goes(int names) {
        for (const wchar_t *name : {L"oem1.inf", L"oem2.inf", L"oem3.inf"})
            std::filesystem::remove(simulation().GetFolders().Inf() / name);
        const std::string text = InfNaming("qbimvta", names);
        std::fill_n(m_view, kPage, ' ');
        std::copy(text.begin(), text.end(), m_view);
        PutInf(L"oem7.inf", std::string(2 * kPage, ' '));
        m_bad = true;
        m_unmapped = false;
        const Removal removal = Uninstall();
        m_bad = false;
        EXPECT_TRUE(removal.result);
        EXPECT_TRUE(m_unmapped);
        EXPECT_EQ(removal.events, Lines{});
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kView), 0U);
        return !HasInf(L"oem7.inf");
    }

    static constexpr std::size_t kPage = 4096;

private:
    char *m_view = static_cast<char *>(VirtualAlloc(nullptr, 2 * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    void *m_handler = nullptr;
    bool m_bad = false;
    bool m_unmapped = false;
};

TEST_P(InfOnABadSector, MatchesNoDriver) {
    raised = 0;
    EXPECT_FALSE(Goes(9));
    EXPECT_EQ(raised, 1);
}

INSTANTIATE_TEST_SUITE_P(Removal, InfOnABadSector, testing::Values(EXCEPTION_IN_PAGE_ERROR, EXCEPTION_ACCESS_VIOLATION),
                         [](const auto &tested) {
                             return tested.param == EXCEPTION_IN_PAGE_ERROR ? "InPageError" : "AccessViolation";
                         });

/// What raises an exception instead of examining a file, until a handler of the process lets it continue.
EXCEPTION_RECORD raisedInstead{};
std::atomic<int> passedOn{0};

BOOL WINAPI RaiseInstead(const void *, int, int *) {
    RaiseException(raisedInstead.ExceptionCode, 0, raisedInstead.NumberParameters, raisedInstead.ExceptionInformation);
    return FALSE;
}

LONG WINAPI ContinueAfterException(EXCEPTION_POINTERS *) {
    ++passedOn;
    return EXCEPTION_CONTINUE_EXECUTION;
}

TEST_F(InfRemoval, PassesOnExceptionsThatDoNotComeFromTheFile) {
    const Simulator::Redirection scan(GetModuleHandleW(L"fc.dll"), "IsTextUnicode",
                                      reinterpret_cast<void *>(&RaiseInstead));
    ASSERT_TRUE(scan.Found());
    const LPTOP_LEVEL_EXCEPTION_FILTER before = SetUnhandledExceptionFilter(&ContinueAfterException);
    for (const auto &[code, words] :
         {std::pair{DWORD{0xE0000001}, DWORD{2}}, std::pair{DWORD{EXCEPTION_ACCESS_VIOLATION}, DWORD{1}},
          std::pair{DWORD{EXCEPTION_ACCESS_VIOLATION}, DWORD{2}},
          std::pair{DWORD{EXCEPTION_IN_PAGE_ERROR}, DWORD{2}}}) {
        SCOPED_TRACE(std::to_string(code) + " with " + std::to_string(words) + " words");
        raisedInstead.ExceptionCode = code;
        raisedInstead.NumberParameters = words;
        passedOn = 0;
        EXPECT_TRUE(Goes(InfNaming("qbimvta", 10)));
        EXPECT_GT(passedOn, 0);
    }
    (void)SetUnhandledExceptionFilter(before);
}

TEST(ViewReading, PassesOnExceptionsFromOtherAddresses) {
    constexpr std::size_t page = 4096;
    auto *const bad =
        static_cast<std::byte *>(VirtualAlloc(nullptr, 2 * page, MEM_RESERVE | MEM_COMMIT, PAGE_NOACCESS));
    struct Nested {
        std::byte *bad;
        bool innerCame = false;
    } nested{bad};
    // The inner reading has another view; the exception must end only the outer one.
    const auto inner = [](void *context) {
        (void)*static_cast<const volatile std::byte *>(static_cast<Nested *>(context)->bad);
    };
    static const auto read = +inner;
    const auto outer = [](void *context) {
        auto &both = *static_cast<Nested *>(context);
        (void)ReadView({both.bad + page, page}, read, context);
        both.innerCame = true;
    };
    EXPECT_FALSE(ReadView({bad, page}, outer, &nested));
    EXPECT_FALSE(nested.innerCame);
    (void)VirtualFree(bad, 0, MEM_RELEASE);
}

TEST_F(InfRemoval, SkipsAFileThatIsOpenForWriting) {
    const HANDLE writer = CreateFileW(Inf(L"oem1.inf").c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                      nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(writer, INVALID_HANDLE_VALUE);
    EXPECT_TRUE(Uninstall().result);
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_FALSE(HasInf(L"oem2.inf"));
    CloseHandle(writer);
}

// --- what they must contain ---

TEST_F(InfRemoval, RemovesAFileThatNamesADriverTenTimes) {
    EXPECT_TRUE(Goes(InfNaming("qbimvta", 10)));
    EXPECT_TRUE(Goes(InfNaming("qbimwfp", 10)));
    EXPECT_FALSE(Goes(InfNaming("qbimvta", 9)));
    EXPECT_FALSE(Goes(InfNaming("qbimwfp", 9)));
}

TEST_F(InfRemoval, CountsEachFileSeparately) {
    PutInf(L"oem1.inf", InfNaming("qbimvta", 9));
    PutInf(L"oem2.inf", InfNaming("qbimvta", 9));
    EXPECT_TRUE(Uninstall().result);
    EXPECT_TRUE(HasInf(L"oem1.inf"));
    EXPECT_TRUE(HasInf(L"oem2.inf"));
}

TEST_F(InfRemoval, CountsEachNameSeparately) {
    EXPECT_FALSE(Goes(InfNaming("qbimvta", 5) + InfNaming("qbimwfp", 5)));
    EXPECT_FALSE(Goes(InfNaming("qbimvta", 9) + InfNaming("qbimwfp", 9)));
}

TEST_F(InfRemoval, LogsTheNameThatReachesTenFirst) {
    PutInf(L"oem1.inf", InfNaming("qbimvta", 9) + InfNaming("qbimwfp", 10) + InfNaming("qbimvta", 1));
    EXPECT_EQ(Matches(Uninstall()).front(), Match("qbimwfp", L"oem1.inf"));
}

TEST_F(InfRemoval, IsCaseSensitiveOnlyForTheFirstLetter) {
    EXPECT_FALSE(Goes(InfNaming("QBIMVTA", 10)));
    EXPECT_FALSE(Goes(InfNaming("Qbimvta", 10)));
    EXPECT_TRUE(Goes(InfNaming("qBIMVTA", 10)));
    EXPECT_TRUE(Goes(InfNaming("qbimWFP", 10)));
}

TEST_F(InfRemoval, ReadsOnAfterAWordThatBeginsLikeAName) {
    EXPECT_TRUE(Goes(Repeat("quick ", 10) + InfNaming("qbimvta", 10)));
    EXPECT_FALSE(Goes(Repeat("quick ", 10) + InfNaming("qbimvta", 9)));
}

TEST_F(InfRemoval, IgnoresANameInTheLastEightBytes) {
    const std::string nine = Repeat("qbimvta.sys, ", 9);
    EXPECT_FALSE(Goes(nine + "qbimvta"));
    EXPECT_FALSE(Goes(nine + "qbimvta;"));
    EXPECT_TRUE(Goes(nine + "qbimvta;;"));
}

TEST_F(InfRemoval, FindsNothingInAFileOfLessThanEightBytes) {
    EXPECT_FALSE(Goes("qbimvta"));
    EXPECT_FALSE(Goes("q"));
}

std::string Wide(const std::string &text) {
    std::string bytes = "\xff\xfe";
    for (const char c : text)
        bytes += {c, '\0'};
    return bytes;
}

TEST_F(InfRemoval, ScansFilesOfWideCharacters) {
    EXPECT_TRUE(Goes(Wide(InfNaming("qbimvta", 10))));
    EXPECT_TRUE(Goes(Wide(InfNaming("qBIMWFP", 10))));
    EXPECT_FALSE(Goes(Wide(InfNaming("qbimvta", 9))));
    EXPECT_FALSE(Goes(Wide(InfNaming("Qbimvta", 10))));
}

TEST_F(InfRemoval, IgnoresAWideNameInTheLastSixteenBytes) {
    const std::string nine = Repeat("qbimvta.sys, ", 9);
    EXPECT_FALSE(Goes(Wide(nine + "qbimvta;")));
    EXPECT_TRUE(Goes(Wide(nine + "qbimvta;;")));
}

}  // namespace
