// The files that the host writes: completely, or not at all.
#include <gtest/gtest.h>

#include "HostProcess.h"
#include "devkit/host/Files.h"
#include "devkit/simulator/FunctionSet.h"
#include "devkit/simulator/WindowsFunctions.h"

namespace {

/// A Linux device that is always full.
constexpr wchar_t kFullDevice[] = L"Z:\\dev\\full";

bool Contains(const std::string &text, const std::string &part) {
    return text.find(part) != std::string::npos;
}

bool HasFullDevice() {
    const HANDLE device = CreateFileW(kFullDevice, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    return device != INVALID_HANDLE_VALUE && CloseHandle(device);
}

class HostFiles : public testing::Test {
protected:
    std::ptrdiff_t FileCount() const { return std::distance(std::filesystem::directory_iterator(folder.Path()), {}); }

    TemporaryFolder folder;
    const std::wstring path = folder.At(L"file");
    std::string error;
};

}  // namespace

TEST_F(HostFiles, AFileReplacesTheOldOneWhenItIsComplete) {
    (void)folder.Write(L"file", "older");
    std::optional<NewFile> file = NewFile::Create(path, error);
    ASSERT_TRUE(file) << error;
    ASSERT_TRUE(file->Write("newer"));
    EXPECT_EQ(TextOfFile(path), "older");
    ASSERT_TRUE(file->Replace(error)) << error;
    EXPECT_EQ(TextOfFile(path), "newer");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(HostFiles, NothingIsLeftOfAnAbandonedFile) {
    {
        std::optional<NewFile> file = NewFile::Create(path, error);
        ASSERT_TRUE(file && file->Write("half")) << error;
        EXPECT_EQ(FileCount(), 1);
    }
    EXPECT_EQ(FileCount(), 0);
}

TEST_F(HostFiles, MissingFoldersAreCreated) {
    const std::wstring below = folder.At(L"one\\two\\file");
    ASSERT_TRUE(WriteWholeFile(below, "text", error)) << error;
    EXPECT_EQ(TextOfFile(below), "text");
}

TEST_F(HostFiles, AReadOnlyFileIsRefused) {
    (void)folder.Write(L"file", "older");
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_FALSE(CanWriteFile(path, error));
    EXPECT_EQ(error, "cannot write " + std::filesystem::path(path).string() + ": it is read-only");
    ASSERT_TRUE(SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL));
    EXPECT_EQ(TextOfFile(path), "older");
}

TEST_F(HostFiles, AFileInUseStaysAndTheNewOneIsDeleted) {
    (void)folder.Write(L"file", "older");
    const HANDLE held = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    ASSERT_NE(held, INVALID_HANDLE_VALUE);
    EXPECT_FALSE(WriteWholeFile(path, "newer", error));
    CloseHandle(held);
    EXPECT_TRUE(Contains(error, "cannot write ")) << error;
    EXPECT_EQ(TextOfFile(path), "older");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(HostFiles, AFullDiskIsReportedAndTheOlderFileStays) {
    (void)folder.Write(L"file", "older");
    const auto core = std::make_shared<Simulator::Core>();
    Simulator::FunctionSet functions(core);
    functions.PassThrough<Simulator::System::WriteFile>();
    functions.Attach(GetModuleHandleW(nullptr), {"WriteFile"});
    const auto plan = core->faults.FailNth("WriteFile", 1, ERROR_DISK_FULL);
    EXPECT_FALSE(WriteWholeFile(path, "newer", error));
    EXPECT_TRUE(plan->Hit());
    EXPECT_TRUE(Contains(error, "cannot write ") && Contains(error, "isk full")) << error;
    EXPECT_EQ(TextOfFile(path), "older");
    EXPECT_EQ(FileCount(), 1);
}

TEST_F(HostFiles, ADeviceIsWrittenToDirectly) {
    EXPECT_TRUE(WriteWholeFile(L"NUL", "text", error)) << error;
}

TEST_F(HostFiles, AFullDiskIsReportedAndEndsTheHostWithTwo) {
    if (!HasFullDevice())
        GTEST_SKIP() << "this system has no device that is always full";
    for (const wchar_t *option : {L"--events", L"--report"}) {
        const HostRun run = RunScript("host.send_event(1, 'text') print 'ran'", {L"--quiet", option, kFullDevice});
        EXPECT_EQ(run.exitCode, 2U);
        EXPECT_EQ(run.out, "ran\n");
        EXPECT_TRUE(Contains(run.err, "fc-host: cannot write Z:\\dev\\full: ")) << run.err;
        EXPECT_TRUE(Contains(run.err, "isk full")) << run.err;
    }
}

TEST_F(HostFiles, AFullDiskIsAnErrorForTheFunctionsThatWrite) {
    if (!HasFullDevice())
        GTEST_SKIP() << "this system has no device that is always full";
    const HostRun run = RunScript(R"(
        local full = "Z:\\dev\\full"
        local function fails(f, ...)
            local ok, message = pcall(f, ...)
            assert(not ok and message:find("isk full", 1, true), message)
        end
        fails(host.write_file, full, "text")
        fails(host.write_json, full, { 1 })
    )");
    EXPECT_EQ(run.exitCode, 0U) << run.err;
}
