#include "DeviceManager.h"

#include <array>
#include <set>
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

constexpr DWORD kSuccess = ERROR_SUCCESS;

/// This program on a machine without devices.
class SimulatedDevices : public ::testing::Test {
protected:
    SimulatedDevices() { (void)simulation.Attach(ThisProgram()); }

    static HDEVINFO List(DWORD flags = DIGCF_PRESENT, const wchar_t *enumerator = nullptr) {
        return SetupDiGetClassDevsW(&GUID_DEVCLASS_NET, enumerator, nullptr, flags);
    }
    static SP_DEVINFO_DATA Data(HDEVINFO list, DWORD index = 0) {
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        EXPECT_TRUE(SetupDiEnumDeviceInfo(list, index, &data));
        return data;
    }
    /// The instance ids in a list, which is then destroyed.
    static std::vector<std::wstring> Ids(HDEVINFO list) {
        std::vector<std::wstring> ids;
        SP_DEVINFO_DATA data{};
        data.cbSize = sizeof data;
        while (SetupDiEnumDeviceInfo(list, static_cast<DWORD>(ids.size()), &data)) {
            std::array<wchar_t, 4096> id{};
            EXPECT_TRUE(SetupDiGetDeviceInstanceIdW(list, &data, id.data(), static_cast<DWORD>(id.size()), nullptr));
            ids.emplace_back(id.data());
        }
        EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_MORE_ITEMS));
        EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
        return ids;
    }
    using Texts = std::vector<std::wstring>;

    Simulation simulation{{.registry = false, .folders = false}};
    DeviceManager &devices = simulation.GetDevices();
};

}  // namespace

TEST_F(SimulatedDevices, AreListedByClassPresenceAndEnumerator) {
    devices.Put({.instanceId = L"ROOT\\MINIPORT\\0000"});
    devices.Put({.instanceId = L"PCI\\CARD\\1", .present = false});
    devices.Put({.instanceId = L"PCI\\DISPLAY\\1", .classGuid = GUID_DEVCLASS_DISPLAY});
    EXPECT_EQ(Ids(List()), (Texts{L"ROOT\\MINIPORT\\0000"}));
    EXPECT_EQ(Ids(List(0)), (Texts{L"ROOT\\MINIPORT\\0000", L"PCI\\CARD\\1"}));
    EXPECT_EQ(Ids(List(0, L"pci")), (Texts{L"PCI\\CARD\\1"}));
    EXPECT_EQ(Ids(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_ALLCLASSES | DIGCF_PRESENT)),
              (Texts{L"ROOT\\MINIPORT\\0000", L"PCI\\DISPLAY\\1"}));
}

TEST_F(SimulatedDevices, AreReplacedByTheirInstanceIdCaseInsensitively) {
    devices.Put({.instanceId = L"root\\one", .present = false});
    devices.Put({.instanceId = L"ROOT\\ONE"});
    EXPECT_EQ(Ids(List(0)), (Texts{L"ROOT\\ONE"}));
    devices.Remove(L"Root\\One");
    EXPECT_FALSE(devices.Has(L"root\\one"));
    EXPECT_EQ(Ids(List(0)), Texts{});
}

TEST_F(SimulatedDevices, StayInAListThatWasMadeBefore) {
    devices.Put({.instanceId = L"ROOT\\ONE"});
    const HDEVINFO list = List();
    devices.Remove(L"ROOT\\ONE");
    devices.Put({.instanceId = L"ROOT\\TWO"});
    EXPECT_EQ(Ids(list), (Texts{L"ROOT\\ONE"}));
    EXPECT_EQ(Ids(List()), (Texts{L"ROOT\\TWO"}));
}

TEST_F(SimulatedDevices, ReportTheirInstanceIdIfItFits) {
    devices.Put({.instanceId = L"ROOT\\ONE"});
    const HDEVINFO list = List();
    SP_DEVINFO_DATA data = Data(list);
    EXPECT_EQ(data.ClassGuid, GUID_DEVCLASS_NET);
    std::wstring id(9, L'#');
    DWORD needed = 0;
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(list, &data, id.data(), 8, &needed)),
              static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(needed, 9U);
    EXPECT_EQ(id, L"#########");
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(list, &data, nullptr, 0, &needed)),
              static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(list, &data, nullptr, 9, nullptr)),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(list, &data, id.data(), 9, nullptr)), kSuccess);
    EXPECT_STREQ(id.c_str(), L"ROOT\\ONE");
    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
}

TEST_F(SimulatedDevices, ReportTheirDescriptionIfItExistsAndFits) {
    devices.Put({.instanceId = L"ROOT\\ONE", .description = L"A card"});
    devices.Put({.instanceId = L"ROOT\\TWO"});
    const HDEVINFO list = List();
    SP_DEVINFO_DATA data = Data(list);
    std::array<wchar_t, 8> text{L'#'};
    DWORD type = 0;
    DWORD needed = 0;
    const auto get = [&](DWORD property, DWORD size) {
        return ErrorOf(SetupDiGetDeviceRegistryPropertyW(list, &data, property, &type,
                                                         reinterpret_cast<BYTE *>(text.data()), size, &needed));
    };
    EXPECT_EQ(get(SPDRP_DEVICEDESC, 13), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(needed, 14U);
    EXPECT_EQ(text[0], L'#');
    EXPECT_EQ(get(SPDRP_DEVICEDESC, 14), kSuccess);
    EXPECT_STREQ(text.data(), L"A card");
    EXPECT_EQ(type, static_cast<DWORD>(REG_SZ));
    EXPECT_EQ(get(SPDRP_FRIENDLYNAME, 16), static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_EQ(get(SPDRP_MAXIMUM_PROPERTY, 16), static_cast<DWORD>(ERROR_INVALID_REG_PROPERTY));
    data = Data(list, 1);
    EXPECT_EQ(get(SPDRP_DEVICEDESC, 16), static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
}

TEST_F(SimulatedDevices, CannotBeAccessedWithWrongHandlesOrData) {
    devices.Put({.instanceId = L"ROOT\\ONE"});
    const HDEVINFO list = List();
    const HDEVINFO other = List();
    SP_DEVINFO_DATA data = Data(list);
    wchar_t id[16] = L"";
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(other, &data, id, 16, nullptr)),
              static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(other));
    EXPECT_EQ(ErrorOf(SetupDiEnumDeviceInfo(other, 0, &data)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(ErrorOf(SetupDiGetDeviceInstanceIdW(other, &data, id, 16, nullptr)),
              static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(ErrorOf(SetupDiDestroyDeviceInfoList(other)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    data.cbSize = 17;
    EXPECT_EQ(ErrorOf(SetupDiEnumDeviceInfo(list, 0, &data)), static_cast<DWORD>(ERROR_INVALID_USER_BUFFER));
    EXPECT_EQ(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_PRESENT), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
}

TEST_F(SimulatedDevices, CountTheirListsAndNeverReuseAHandle) {
    std::set<HDEVINFO> lists;
    const auto open = [this] { return simulation.GetBalance().Take().Count(Kind::kDeviceList); };
    for (int i = 0; i < 100; ++i) {
        const HDEVINFO list = List();
        EXPECT_TRUE(lists.insert(list).second);
        EXPECT_EQ(open(), 1U);
        EXPECT_TRUE(SetupDiDestroyDeviceInfoList(list));
    }
    EXPECT_EQ(open(), 0U);
}

TEST_F(SimulatedDevices, FailAsPlannedAndAreInTheJournal) {
    (void)simulation.GetFaults().FailNth("SetupDiGetClassDevsW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(List(), INVALID_HANDLE_VALUE);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    const std::vector<JournalEntry> calls = simulation.GetJournal().Take();
    ASSERT_EQ(calls.size(), 1U);
    EXPECT_EQ(calls[0].arguments, "{4D36E972-E325-11CE-BFC1-08002BE10318}, null, null, 2");
}

TEST(RealDevices, BehaveLikeTheSimulatedOnes) {
    const auto ask = [] {
        std::vector<DWORD> answers;
        const GUID nobodys{0x6a6f8f5e, 0x11aa, 0x4bd4, {1, 2, 3, 4, 5, 6, 7, 8}};
        const HDEVINFO empty = SetupDiGetClassDevsW(&nobodys, nullptr, nullptr, DIGCF_PRESENT);
        answers.push_back(ErrorOf(empty != INVALID_HANDLE_VALUE));
        SP_DEVINFO_DATA data{};
        answers.push_back(ErrorOf(SetupDiEnumDeviceInfo(empty, 0, &data)));
        answers.push_back(ErrorOf(SetupDiEnumDeviceInfo(empty, 0, nullptr)));
        data.cbSize = sizeof data;
        answers.push_back(ErrorOf(SetupDiEnumDeviceInfo(empty, 0, &data)));
        answers.push_back(ErrorOf(SetupDiDestroyDeviceInfoList(empty)));
        answers.push_back(ErrorOf(SetupDiDestroyDeviceInfoList(INVALID_HANDLE_VALUE)));
        answers.push_back(ErrorOf(SetupDiGetClassDevsW(nullptr, nullptr, nullptr, 0) != INVALID_HANDLE_VALUE));
        const HDEVINFO all = SetupDiGetClassDevsW(nullptr, nullptr, nullptr, DIGCF_ALLCLASSES);
        answers.push_back(ErrorOf(SetupDiEnumDeviceInfo(all, 0, &data)));
        DWORD needed = 0;
        answers.push_back(ErrorOf(SetupDiGetDeviceInstanceIdW(all, &data, nullptr, 0, &needed)));
        std::wstring id(needed, L'#');
        answers.push_back(ErrorOf(SetupDiGetDeviceInstanceIdW(all, &data, id.data(), needed - 1, nullptr)));
        answers.push_back(ErrorOf(SetupDiGetDeviceInstanceIdW(all, &data, id.data(), needed, nullptr)));
        answers.push_back(ErrorOf(SetupDiGetDeviceInstanceIdW(all, nullptr, id.data(), needed, nullptr)));
        answers.push_back(ErrorOf(SetupDiDestroyDeviceInfoList(all)));
        return answers;
    };
    const std::vector<DWORD> real = ask();
    Simulation simulation({.registry = false, .folders = false, .balance = false});
    simulation.GetDevices().Put({.instanceId = L"ROOT\\ONE"});
    (void)simulation.Attach(ThisProgram());
    EXPECT_EQ(ask(), real);
    EXPECT_EQ(simulation.GetJournal().Count("SetupDiGetClassDevsW"), 3U);
}
