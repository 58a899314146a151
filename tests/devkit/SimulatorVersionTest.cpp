#include "Machine.h"

#include <array>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>
#include <wx/utils.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr DWORD kSuccess = ERROR_SUCCESS;

struct Condition {
    DWORD type;
    BYTE condition;
};

/// @return the result of VerifyVersionInfoW.
DWORD Verify(OSVERSIONINFOEXW wanted, const std::vector<Condition> &conditions) {
    wanted.dwOSVersionInfoSize = sizeof wanted;
    DWORD types = 0;
    DWORDLONG mask = 0;
    for (const Condition &each : conditions) {
        types |= each.type;
        mask = VerSetConditionMask(mask, each.type, each.condition);
    }
    SetLastError(ERROR_SUCCESS);
    return VerifyVersionInfoW(&wanted, types, mask) ? kSuccess : GetLastError();
}

OSVERSIONINFOEXW Numbers(DWORD major, DWORD minor, WORD servicePack) {
    OSVERSIONINFOEXW wanted{};
    wanted.dwMajorVersion = major;
    wanted.dwMinorVersion = minor;
    wanted.wServicePackMajor = servicePack;
    return wanted;
}

DWORD VerifyAtLeast(DWORD major, DWORD minor, WORD servicePack) {
    return Verify(Numbers(major, minor, servicePack), {{VER_MAJORVERSION, VER_GREATER_EQUAL},
                                                       {VER_MINORVERSION, VER_GREATER_EQUAL},
                                                       {VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL}});
}

DWORD VerifyProduct(BYTE type) {
    OSVERSIONINFOEXW wanted{};
    wanted.wProductType = type;
    return Verify(wanted, {{VER_PRODUCT_TYPE, VER_EQUAL}});
}

class SimulatedVersion : public ::testing::Test {
protected:
    SimulatedVersion() { (void)simulation.Attach(ThisProgram()); }

    Simulation simulation{{.registry = false, .folders = false}};
    Machine &machine = simulation.GetMachine();
};

constexpr DWORD kOld = ERROR_OLD_WIN_VERSION;
constexpr std::array<BYTE, 5> kConditions{VER_EQUAL, VER_GREATER, VER_GREATER_EQUAL, VER_LESS, VER_LESS_EQUAL};
constexpr std::array<BYTE, 2> kProducts{VER_NT_WORKSTATION, VER_NT_SERVER};

}  // namespace

TEST_F(SimulatedVersion, IncludesEditionAndServicePack) {
    machine.productType = VER_NT_SERVER;
    machine.suiteMask = VER_SUITE_EMBEDDEDNT | VER_SUITE_BLADE;
    machine.servicePack = 3;
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof info;
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&info)));
    EXPECT_EQ(info.wProductType, VER_NT_SERVER);
    EXPECT_EQ(info.wSuiteMask, VER_SUITE_EMBEDDEDNT | VER_SUITE_BLADE);
    EXPECT_EQ(info.wServicePackMajor, 3U);
}

TEST_F(SimulatedVersion, CanBeReadIntoTheSmallStruct) {
    machine.productType = VER_NT_SERVER;
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&info)));
    EXPECT_EQ(info.dwMajorVersion, 10U);
    EXPECT_EQ(info.wProductType, 0U);
}

TEST_F(SimulatedVersion, IsComparedByTheFirstNumberThatDiffers) {
    machine.osMajor = 6;
    machine.osMinor = 2;
    machine.servicePack = 1;
    EXPECT_EQ(VerifyAtLeast(6, 2, 0), kSuccess);
    EXPECT_EQ(VerifyAtLeast(6, 2, 1), kSuccess);
    EXPECT_EQ(VerifyAtLeast(6, 2, 2), kOld);
    EXPECT_EQ(VerifyAtLeast(6, 3, 0), kOld);
    EXPECT_EQ(VerifyAtLeast(6, 1, 9), kSuccess);
    EXPECT_EQ(VerifyAtLeast(5, 9, 9), kSuccess);
    EXPECT_EQ(VerifyAtLeast(7, 0, 0), kOld);
    EXPECT_EQ(Verify(Numbers(6, 0, 0), {{VER_MAJORVERSION, VER_EQUAL}, {VER_MINORVERSION, VER_GREATER}}), kSuccess);
    EXPECT_EQ(Verify(Numbers(7, 0, 0), {{VER_MAJORVERSION, VER_LESS}}), kSuccess);
    EXPECT_EQ(Verify(Numbers(6, 0, 0), {{VER_MAJORVERSION, VER_LESS_EQUAL}}), kSuccess);
    EXPECT_EQ(Verify(Numbers(6, 0, 0), {{VER_MAJORVERSION, VER_GREATER}}), kOld);
}

TEST_F(SimulatedVersion, IsComparedByEditionAndBuild) {
    EXPECT_EQ(VerifyProduct(VER_NT_WORKSTATION), kSuccess);
    machine.productType = VER_NT_SERVER;
    EXPECT_EQ(VerifyProduct(VER_NT_WORKSTATION), kOld);
    EXPECT_EQ(VerifyProduct(VER_NT_SERVER), kSuccess);
    OSVERSIONINFOEXW wanted{};
    wanted.dwBuildNumber = 19045;
    EXPECT_EQ(Verify(wanted, {{VER_BUILDNUMBER, VER_EQUAL}}), kSuccess);
    machine.osBuild = 9600;
    EXPECT_EQ(Verify(wanted, {{VER_BUILDNUMBER, VER_EQUAL}}), kOld);
    machine.suiteMask = VER_SUITE_EMBEDDEDNT;
    wanted.wSuiteMask = VER_SUITE_EMBEDDEDNT | VER_SUITE_BLADE;
    EXPECT_EQ(Verify(wanted, {{VER_SUITENAME, VER_OR}}), kSuccess);
    EXPECT_EQ(Verify(wanted, {{VER_SUITENAME, VER_AND}}), kOld);
    machine.suiteMask |= VER_SUITE_BLADE;
    EXPECT_EQ(Verify(wanted, {{VER_SUITENAME, VER_AND}}), kSuccess);
}

TEST_F(SimulatedVersion, IsNotComparedWithoutACondition) {
    EXPECT_EQ(Verify(Numbers(10, 0, 0), {}), static_cast<DWORD>(ERROR_BAD_ARGUMENTS));
    OSVERSIONINFOEXW wanted = Numbers(10, 0, 0);
    wanted.dwOSVersionInfoSize = sizeof wanted;
    EXPECT_FALSE(VerifyVersionInfoW(&wanted, VER_MAJORVERSION, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_BAD_ARGUMENTS));
    (void)simulation.GetFaults().FailNth("VerifyVersionInfoW", 1, ERROR_NOT_ENOUGH_MEMORY);
    EXPECT_EQ(VerifyProduct(VER_NT_WORKSTATION), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
}

TEST_F(SimulatedVersion, IsTheOneThatWxWidgetsReportsEvenAfterAChange) {
    int major = 0;
    int minor = 0;
    int build = 0;
    EXPECT_EQ(wxGetOsVersion(&major, &minor, &build), wxOS_WINDOWS_NT);
    EXPECT_EQ(major, 10);
    EXPECT_EQ(build, 19045);
    machine.osMajor = 5;
    machine.osMinor = 1;
    EXPECT_EQ(wxGetOsVersion(&major, &minor), wxOS_WINDOWS_NT);
    EXPECT_EQ(major, 5);
    EXPECT_EQ(minor, 1);
}

TEST(RealVersion, BehavesLikeTheSimulatedOne) {
    OSVERSIONINFOEXW info{};
    info.dwOSVersionInfoSize = sizeof info;
    ASSERT_TRUE(GetVersionExW(reinterpret_cast<OSVERSIONINFOW *>(&info)));
    const auto ask = [&info] {
        std::vector<DWORD> answers;
        for (const DWORD major : {info.dwMajorVersion - 1, info.dwMajorVersion, info.dwMajorVersion + 1}) {
            for (const DWORD minor : {info.dwMinorVersion, info.dwMinorVersion + 1}) {
                for (const BYTE condition : kConditions)
                    answers.push_back(
                        Verify(Numbers(major, minor, info.wServicePackMajor), {{VER_MAJORVERSION, condition},
                                                                               {VER_MINORVERSION, condition},
                                                                               {VER_SERVICEPACKMAJOR, condition}}));
            }
        }
        for (const BYTE type : kProducts)
            answers.push_back(VerifyProduct(type));
        answers.push_back(Verify(info, {}));
        return answers;
    };
    const std::vector<DWORD> real = ask();
    Simulation simulation({.registry = false, .folders = false});
    simulation.GetMachine().osMajor = info.dwMajorVersion;
    simulation.GetMachine().osMinor = info.dwMinorVersion;
    simulation.GetMachine().osBuild = info.dwBuildNumber;
    simulation.GetMachine().servicePack = info.wServicePackMajor;
    simulation.GetMachine().productType = info.wProductType;
    (void)simulation.Attach(ThisProgram());
    EXPECT_EQ(ask(), real);
    EXPECT_EQ(simulation.GetJournal().Count("VerifyVersionInfoW"), real.size());
}
