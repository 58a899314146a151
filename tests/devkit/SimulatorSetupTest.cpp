#include "SetupLibrary.h"

#include <array>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

using UninstallFunction = decltype(&::SetupUninstallOEMInfW);
using InstallFunction = decltype(&::InstallHinfSectionW);

/// This program with setupapi.dll loaded, and one driver's INF file.
class SimulatedSetup : public ::testing::Test {
protected:
    SimulatedSetup() {
        (void)simulation.Attach(ThisProgram());
        library = LoadLibraryW(L"setupapi");
        for (const auto &file : Files())
            std::ofstream(file) << "text";
    }
    ~SimulatedSetup() override { EXPECT_TRUE(FreeLibrary(library)); }

    [[nodiscard]] std::vector<std::filesystem::path> Files() {
        SystemFolders &folders = simulation.GetFolders();
        return {folders.Inf() / L"oem7.inf", folders.Inf() / L"oem7.pnf", folders.Catalogs() / L"oem7.cat"};
    }
    [[nodiscard]] unsigned FilesThere() {
        unsigned count = 0;
        for (const auto &file : Files())
            count += std::filesystem::exists(file) ? 1U : 0U;
        return count;
    }
    static FARPROC Find(const char *function) { return GetProcAddress(GetModuleHandleW(L"setupapi"), function); }
    /// @return ERROR_SUCCESS or the last error.
    static DWORD Uninstall(const wchar_t *name, void *reserved = nullptr) {
        const auto function =
            reinterpret_cast<UninstallFunction>(reinterpret_cast<void *>(Find("SetupUninstallOEMInfW")));
        return function(name, SUOI_FORCEDELETE, reserved) ? ERROR_SUCCESS : GetLastError();
    }
    static void Install(const wchar_t *command) {
        const auto function = reinterpret_cast<InstallFunction>(reinterpret_cast<void *>(Find("InstallHinfSectionW")));
        function(nullptr, nullptr, command, 0);
    }

    Simulation simulation{{.registry = false, .machine = false}};
    SetupLibrary &setup = simulation.GetSetup();
    HMODULE library = nullptr;
};

}  // namespace

TEST_F(SimulatedSetup, UninstallsAnInfFileWithItsCompanions) {
    std::ofstream(simulation.GetFolders().Inf() / L"oem8.inf") << "text";
    ASSERT_TRUE(SetFileAttributesW(Files()[0].c_str(), FILE_ATTRIBUTE_READONLY));
    EXPECT_EQ(Uninstall(L"OEM7.inf"), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(FilesThere(), 0U);
    EXPECT_TRUE(std::filesystem::exists(simulation.GetFolders().Inf() / L"oem8.inf"));
    EXPECT_EQ(Uninstall(L"oem7.inf"), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(SimulatedSetup, RequiresTheNameOfAnInstalledInfFileWithoutAFolder) {
    EXPECT_EQ(Uninstall(Files()[0].c_str()), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Uninstall(nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Uninstall(L"oem7.inf", this), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Uninstall(L"net7.inf"), static_cast<DWORD>(ERROR_NOT_AN_INSTALLED_OEM_INF));
    EXPECT_EQ(FilesThere(), 3U);
}

TEST_F(SimulatedSetup, FailsToUninstallWithTheConfiguredError) {
    setup.uninstallError = ERROR_INF_IN_USE_BY_DEVICES;
    EXPECT_EQ(Uninstall(L"oem7.inf"), static_cast<DWORD>(ERROR_INF_IN_USE_BY_DEVICES));
    setup.uninstallError = ERROR_SUCCESS;
    (void)simulation.GetFaults().FailNth("SetupUninstallOEMInfW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Uninstall(L"oem7.inf"), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(FilesThere(), 3U);
}

TEST_F(SimulatedSetup, PassesOnTheCommandsOfSections) {
    std::vector<std::wstring> seen;
    setup.onInstallSection = [&](const std::wstring &command) {
        seen.push_back(command);
        simulation.GetServices().Remove(L"driver");
    };
    simulation.GetServices().Put(L"driver", {});
    const std::vector<std::wstring> commands{L"DefaultUninstall 128 C:\\folder\\driver.inf"};
    Install(commands[0].c_str());
    EXPECT_EQ(seen, commands);
    EXPECT_EQ(setup.Commands(), commands);
    EXPECT_FALSE(simulation.GetServices().Has(L"driver"));
}

TEST_F(SimulatedSetup, CanLackItsFunctions) {
    EXPECT_NE(Find("InstallHinfSectionW"), nullptr);
    setup.Lack("InstallHinfSectionW");
    EXPECT_EQ(Find("InstallHinfSectionW"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_PROC_NOT_FOUND));
    EXPECT_NE(Find("SetupUninstallOEMInfW"), nullptr);
    setup.Lack("SetupUninstallOEMInfW");
    EXPECT_EQ(Find("SetupUninstallOEMInfW"), nullptr);
    EXPECT_NE(Find("SetupOpenInfFileW"), nullptr) << "others stay";
}

TEST_F(SimulatedSetup, MayNotBeFoundAmongTheLoadedLibraries) {
    (void)simulation.GetFaults().FailNth("GetModuleHandleW", 1, ERROR_MOD_NOT_FOUND);
    EXPECT_EQ(GetModuleHandleW(L"setupapi"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(GetModuleHandleW(L"setupapi"), library);
}

TEST_F(SimulatedSetup, StaysUsableWhenTheThreadOfAHangingSectionIsKilled) {
    const FaultPlanHandle hang = simulation.GetFaults().HangNth("InstallHinfSectionW", 1);
    {
        const TestThread thread([] { Install(L"DefaultInstall 128 a.inf"); });
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        ASSERT_TRUE(TerminateThread(thread.Handle(), 1));
    }
    EXPECT_TRUE(setup.Commands().empty());
    Install(L"DefaultInstall 128 b.inf");
    EXPECT_EQ(setup.Commands(), std::vector<std::wstring>{L"DefaultInstall 128 b.inf"});
}

TEST_F(SimulatedSetup, CopiesInfFilesUnderTheLowestFreeNumbers) {
    const std::filesystem::path source = simulation.GetFolders().Temp() / L"driver.inf";
    std::ofstream(source) << "driver";
    std::ofstream(simulation.GetFolders().Inf() / L"oem0.inf") << "text";
    simulation.GetFolders().MapPath(L"C:\\agent", simulation.GetFolders().Temp());
    for (const wchar_t *expected : {L"oem1.inf", L"oem2.inf"}) {
        std::array<wchar_t, MAX_PATH> path{};
        DWORD needed = 0;
        wchar_t *name = nullptr;
        ASSERT_TRUE(
            SetupCopyOEMInfW(L"C:\\agent\\driver.inf", nullptr, SPOST_PATH, 0, path.data(), MAX_PATH, &needed, &name));
        EXPECT_EQ(std::filesystem::path(path.data()), simulation.GetFolders().Inf() / expected);
        EXPECT_EQ(needed, std::wcslen(path.data()) + 1);
        EXPECT_STREQ(name, expected);
        std::string text;
        EXPECT_TRUE(std::ifstream(path.data()) >> text);
        EXPECT_EQ(text, "driver");
    }
    EXPECT_TRUE(SetupCopyOEMInfW(source.c_str(), nullptr, SPOST_NONE, 0, nullptr, 0, nullptr, nullptr));
    EXPECT_TRUE(std::filesystem::exists(simulation.GetFolders().Inf() / L"oem3.inf"));
}

TEST_F(SimulatedSetup, FailsToCopyAsTheFileSays) {
    const std::filesystem::path source = simulation.GetFolders().Temp() / L"driver.inf";
    std::array<wchar_t, MAX_PATH> path{};
    const auto copy = [&](DWORD room) {
        const BOOL copied =
            SetupCopyOEMInfW(source.c_str(), nullptr, SPOST_PATH, 0, path.data(), room, nullptr, nullptr);
        return copied ? static_cast<DWORD>(ERROR_SUCCESS) : GetLastError();
    };
    EXPECT_EQ(copy(MAX_PATH), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    std::ofstream(source) << "driver";
    setup.FailCopy(L"Driver.INF", ERROR_AUTHENTICODE_TRUST_NOT_ESTABLISHED);
    setup.FailCopy(L"other.inf", ERROR_ACCESS_DENIED);
    EXPECT_EQ(copy(MAX_PATH), ERROR_AUTHENTICODE_TRUST_NOT_ESTABLISHED);
    setup.FailCopy(L"driver.inf", ERROR_SUCCESS);
    EXPECT_EQ(copy(3), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    (void)simulation.GetFaults().FailNth("SetupCopyOEMInfW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(copy(MAX_PATH), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(path[0], L'\0');
    EXPECT_FALSE(std::filesystem::exists(simulation.GetFolders().Inf() / L"oem0.inf"));
    EXPECT_EQ(copy(MAX_PATH), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_TRUE(std::filesystem::exists(simulation.GetFolders().Inf() / L"oem0.inf"));
}
