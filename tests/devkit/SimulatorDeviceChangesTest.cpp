#include "DeviceManager.h"

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>
#include <setupapi.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr wchar_t kCard[] = L"PCI\\CARD\\1";
constexpr DWORD kSuccess = ERROR_SUCCESS;

/// One device, and a list of it.
class SimulatedDeviceChanges : public ::testing::Test {
protected:
    SimulatedDeviceChanges() {
        (void)simulation.Attach(ThisProgram());
        devices.Put({.instanceId = kCard});
        list = SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT | DIGCF_ALLCLASSES | DIGCF_PROFILE);
        EXPECT_NE(list, INVALID_HANDLE_VALUE);
        data.cbSize = sizeof data;
        EXPECT_TRUE(SetupDiEnumDeviceInfo(list, 0, &data));
    }
    ~SimulatedDeviceChanges() override { EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list)); }

    static SP_PROPCHANGE_PARAMS Parameters(DWORD state, DWORD scope) {
        SP_PROPCHANGE_PARAMS parameters{};
        parameters.ClassInstallHeader.cbSize = sizeof parameters.ClassInstallHeader;
        parameters.ClassInstallHeader.InstallFunction = DIF_PROPERTYCHANGE;
        parameters.StateChange = state;
        parameters.Scope = scope;
        return parameters;
    }
    DWORD Set(SP_PROPCHANGE_PARAMS parameters, DWORD size = sizeof(SP_PROPCHANGE_PARAMS)) {
        return SetupDiSetClassInstallParamsW(list, &data, &parameters.ClassInstallHeader, size) ? kSuccess
                                                                                                : GetLastError();
    }
    DWORD Call(DI_FUNCTION function = DIF_PROPERTYCHANGE) {
        return SetupDiCallClassInstaller(function, list, &data) ? kSuccess : GetLastError();
    }
    DWORD Change(DWORD state, DWORD scope) {
        EXPECT_EQ(Set(Parameters(state, scope)), kSuccess);
        return Call();
    }

    Simulation simulation{{.registry = false, .folders = false}};
    DeviceManager &devices = simulation.GetDevices();
    HDEVINFO list = nullptr;
    SP_DEVINFO_DATA data{};
};

}  // namespace

TEST_F(SimulatedDeviceChanges, DisableAndEnableInTheirScope) {
    EXPECT_TRUE(devices.IsEnabled(L"pci\\card\\1"));
    EXPECT_EQ(Change(DICS_DISABLE, DICS_FLAG_CONFIGSPECIFIC), kSuccess);
    EXPECT_FALSE(devices.IsEnabled(kCard));
    EXPECT_EQ(Change(DICS_ENABLE, DICS_FLAG_GLOBAL), kSuccess);
    EXPECT_FALSE(devices.IsEnabled(kCard)) << "the profile has it disabled";
    EXPECT_EQ(Change(DICS_ENABLE, DICS_FLAG_CONFIGSPECIFIC), kSuccess);
    EXPECT_TRUE(devices.IsEnabled(kCard));
    EXPECT_EQ(Change(DICS_DISABLE, DICS_FLAG_GLOBAL), kSuccess);
    EXPECT_FALSE(devices.IsEnabled(kCard));
    EXPECT_EQ(devices.Changes(), (std::vector<DeviceChange>{{kCard, DICS_DISABLE, DICS_FLAG_CONFIGSPECIFIC},
                                                            {kCard, DICS_ENABLE, DICS_FLAG_GLOBAL},
                                                            {kCard, DICS_ENABLE, DICS_FLAG_CONFIGSPECIFIC},
                                                            {kCard, DICS_DISABLE, DICS_FLAG_GLOBAL}}));
}

TEST_F(SimulatedDeviceChanges, FailWithTheErrorThatTheDeviceHas) {
    devices.Put({.instanceId = kCard, .changeError = ERROR_NOT_DISABLEABLE});
    EXPECT_EQ(Change(DICS_DISABLE, DICS_FLAG_GLOBAL), static_cast<DWORD>(ERROR_NOT_DISABLEABLE));
    EXPECT_TRUE(devices.IsEnabled(kCard));
    EXPECT_EQ(devices.Changes().size(), 1U);
    devices.Remove(kCard);
    EXPECT_FALSE(devices.IsEnabled(kCard));
    EXPECT_EQ(Call(), static_cast<DWORD>(ERROR_NO_SUCH_DEVINST));
    EXPECT_EQ(devices.Changes().size(), 1U);
}

TEST_F(SimulatedDeviceChanges, RequireValidParameters) {
    EXPECT_EQ(Call(), static_cast<DWORD>(ERROR_NO_CLASSINSTALL_PARAMS));
    SP_PROPCHANGE_PARAMS parameters = Parameters(DICS_DISABLE, DICS_FLAG_GLOBAL);
    EXPECT_EQ(Set(parameters, sizeof parameters - 1), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    parameters.ClassInstallHeader.cbSize = sizeof parameters;
    EXPECT_EQ(Set(parameters), static_cast<DWORD>(ERROR_INVALID_USER_BUFFER));
    parameters = Parameters(DICS_DISABLE, DICS_FLAG_GLOBAL);
    parameters.ClassInstallHeader.InstallFunction = DIF_REMOVE;
    EXPECT_EQ(Set(parameters), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Call(), static_cast<DWORD>(ERROR_NO_CLASSINSTALL_PARAMS)) << "none of those was taken";
    EXPECT_EQ(Set(Parameters(DICS_DISABLE, DICS_FLAG_GLOBAL)), kSuccess);
    EXPECT_EQ(Call(DIF_REMOVE), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    data.cbSize = 0;
    EXPECT_EQ(Call(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    data.cbSize = sizeof data;
    EXPECT_TRUE(devices.Changes().empty());
    EXPECT_EQ(Call(), kSuccess);
}

TEST_F(SimulatedDeviceChanges, NotifyTheObserver) {
    std::vector<DeviceChange> seen;
    devices.OnChange([&](const DeviceChange &change) {
        seen.push_back(change);
        EXPECT_EQ(devices.IsEnabled(change.instanceId), change.state == DICS_ENABLE) << "it has happened";
    });
    EXPECT_EQ(Change(DICS_DISABLE, DICS_FLAG_GLOBAL), kSuccess);
    EXPECT_EQ(Change(DICS_ENABLE, DICS_FLAG_GLOBAL), kSuccess);
    (void)simulation.GetFaults().FailNth("SetupDiCallClassInstaller", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Change(DICS_DISABLE, DICS_FLAG_GLOBAL), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(seen, (std::vector<DeviceChange>{{kCard, DICS_DISABLE, DICS_FLAG_GLOBAL},
                                               {kCard, DICS_ENABLE, DICS_FLAG_GLOBAL}}));
}

TEST_F(SimulatedDeviceChanges, KeepTheDevicesUsableWhenTheThreadOfAHangingOneIsKilled) {
    const FaultPlanHandle hang = simulation.GetFaults().HangNth("SetupDiCallClassInstaller", 1);
    EXPECT_EQ(Set(Parameters(DICS_DISABLE, DICS_FLAG_GLOBAL)), kSuccess);
    {
        const TestThread thread([this] { (void)Call(); });
        ASSERT_TRUE(hang->WaitUntilHit(kPatienceMs));
        ASSERT_TRUE(TerminateThread(thread.Handle(), 1));
    }
    EXPECT_TRUE(devices.IsEnabled(kCard));
    EXPECT_EQ(Call(), kSuccess);
    EXPECT_FALSE(devices.IsEnabled(kCard));
}
