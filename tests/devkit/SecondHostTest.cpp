// What a host does when it can't start another one.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "HostProcess.h"
#include "devkit/host/SecondHost.h"
#include "devkit/simulator/FunctionSet.h"
#include "devkit/simulator/WindowsFunctions.h"

namespace {

/// Runs no script: this program takes it for an option of its own, and ends at once.
std::optional<SecondHostRun> TryToRun(std::string &error) {
    return RunInSecondHost(L"--gtest_list_tests", {}, error);
}

/// Has the system name another folder for temporary files.
class OtherTemporaryFolder {
public:
    explicit OtherTemporaryFolder(const std::filesystem::path &folder) {
        (void)SetEnvironmentVariableW(L"TMP", folder.c_str());
    }
    ~OtherTemporaryFolder() { (void)SetEnvironmentVariableW(L"TMP", m_before.c_str()); }
    OtherTemporaryFolder(const OtherTemporaryFolder &) = delete;
    OtherTemporaryFolder &operator=(const OtherTemporaryFolder &) = delete;

private:
    const std::filesystem::path m_before = std::filesystem::temp_directory_path();
};

}  // namespace

TEST(SecondHost, IsNotStartedWithoutAFileForItsOutput) {
    const auto core = std::make_shared<Simulator::Core>();
    Simulator::FunctionSet functions(core);
    functions.Put<Simulator::System::CreateFileW>(
        [](const auto &next, LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, auto... rest) {
            const bool isInherited = security != nullptr && security->bInheritHandle != FALSE;
            if (!isInherited)
                return next(path, access, share, security, rest...);
            SetLastError(ERROR_ACCESS_DENIED);
            return INVALID_HANDLE_VALUE;
        });
    ASSERT_EQ(functions.Attach(GetModuleHandleW(nullptr), {"CreateFileW"}), 1U);
    std::string error;
    EXPECT_FALSE(TryToRun(error));
    EXPECT_TRUE(error.starts_with("cannot write ") && error.find("\\output: ") != error.npos) << error;
}

TEST(SecondHost, IsNotStartedWithoutAFolderForItsFiles) {
    const TemporaryFolder folder;
    const std::filesystem::path below = std::filesystem::path(folder.Write(L"file", "")) / L"below";
    const OtherTemporaryFolder other(below);
    std::string error;
    EXPECT_FALSE(TryToRun(error));
    EXPECT_TRUE(error.starts_with("cannot write " + below.string())) << error;
}
