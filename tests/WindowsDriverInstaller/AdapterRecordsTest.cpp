// The network adapters as records: every field, and what happens when one of its sources fails.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "BindingsFixture.h"
#include "WindowsFunctions.h"

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFF;
const wchar_t *const kFirstName = L"{11111111-0000-0000-0000-000000000001}";

using TellAdapters =
    Simulator::Function<"GetAdaptersInfo", "IPHLPAPI.DLL", ULONG(IP_ADAPTER_INFO *, ULONG *), Simulator::ReturnsStatus>;

/// In network byte order, as inet_addr returns it.
constexpr std::uint32_t Address(unsigned a, unsigned b, unsigned c, unsigned d) {
    return a | b << 8 | c << 16 | d << 24;
}

std::string Bytes(const std::vector<int> &bytes) {
    return {bytes.begin(), bytes.end()};
}

/// The filter is bound to the first of the two adapters, TCP/IP to both.
class AdapterRecords : public BindingsFixture {
protected:
    AdapterRecords() {
        network().Put({.id = L"qbimvta"});
        network().Bind(kFirst, L"qbimvta");
    }

    template <class Body>
    void ChangeFirst(Body body) {
        network().ChangeAdapter(kFirst, body);
    }
    TcpAdapter First() {
        const TcpAdapterList adapters = Records();
        EXPECT_EQ(adapters.size(), 2U);
        return adapters.front();
    }
    /// Reads while a call fails that must not end the enumeration. @return the first of the two records.
    TcpAdapter FirstWhile(const std::string &function, unsigned nth = 1) {
        const auto plan = simulation().GetFaults().FailNth(function, nth, static_cast<DWORD>(E_FAIL));
        TcpAdapter first = First();
        EXPECT_TRUE(plan->Hit()) << function;
        return first;
    }
    /// The queries sent to the first adapter's device, as "code, length of the id, size of the buffer".
    Texts Questions() { return Calls({"DeviceIoControl"}); }
    void RunOnVersion(DWORD major, DWORD minor) {
        simulation().GetMachine().osMajor = major;
        simulation().GetMachine().osMinor = minor;
    }
};

// ---- The fields

TEST_F(AdapterRecords, ContainEverythingTheSystemReports) {
    ChangeFirst([](auto &adapter) {
        adapter.index = 77;
        adapter.deviceStatus = 10;
    });
    const TcpAdapter first = First();
    EXPECT_TRUE(first.boundToIp);
    EXPECT_TRUE(first.boundToFilter);
    EXPECT_EQ(first.bindName, kFirstName);
    EXPECT_EQ(first.ipAddress, Address(10, 0, 0, 10));
    EXPECT_EQ(first.gatewayAddress, Address(10, 0, 0, 1));
    EXPECT_EQ(first.characteristics, 4U);
    EXPECT_EQ(first.componentId, "PCI\\VEN_8086&DEV_100E");
    EXPECT_EQ(first.deviceStatus, 10U);
    EXPECT_EQ(first.macAddress, Bytes({0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(first.pnpDevNodeId, kFirst);
    EXPECT_EQ(first.displayName, "First adapter");
    EXPECT_EQ(first.adapterIndex, 77U);
    EXPECT_EQ(first.mediaConnectStatus, 0U);
    EXPECT_EQ(first.framesReceived, 1000U);
}

TEST_F(AdapterRecords, HaveTheirFieldsInThisOrder) {
    const TcpAdapter adapter;
    const std::vector<const void *> fields{
        &adapter.boundToIp,          &adapter.boundToFilter,   &adapter.bindName,    &adapter.ipAddress,
        &adapter.gatewayAddress,     &adapter.characteristics, &adapter.componentId, &adapter.deviceStatus,
        &adapter.macAddress,         &adapter.pnpDevNodeId,    &adapter.displayName, &adapter.adapterIndex,
        &adapter.mediaConnectStatus, &adapter.framesReceived};
    for (std::size_t i = 1; i < fields.size(); ++i)
        EXPECT_LT(fields[i - 1], fields[i]) << i;
    EXPECT_EQ(sizeof(adapter.ipAddress), 4U);
    EXPECT_EQ(sizeof(adapter.framesReceived), 8U);
}

TEST_F(AdapterRecords, AreEmptyForAnAdapterWithoutAnyInformation) {
    ChangeFirst([](auto &adapter) {
        adapter.inIpHelper = false;
        adapter.openError = ERROR_FILE_NOT_FOUND;
        adapter.displayName.reset();
    });
    network().Bind(kFirst, L"ms_tcpip", false);
    network().Bind(kFirst, L"qbimvta", false);
    const TcpAdapter first = First();
    EXPECT_FALSE(first.boundToIp);
    EXPECT_FALSE(first.boundToFilter);
    EXPECT_EQ(first.ipAddress, kNone);
    EXPECT_EQ(first.gatewayAddress, kNone);
    EXPECT_EQ(first.deviceStatus, 0U);
    EXPECT_EQ(first.macAddress, "");
    EXPECT_EQ(first.displayName, kFirst);
    EXPECT_EQ(first.adapterIndex, 0U);
    EXPECT_EQ(first.mediaConnectStatus, kNone);
    EXPECT_EQ(first.framesReceived, 0U);
}

TEST_F(AdapterRecords, AreAppendedInEnumerationOrder) {
    TcpAdapterList adapters(1);
    adapters.front().displayName = "There before";
    (void)ReadInto(adapters);
    std::vector<wxString> names;
    for (const TcpAdapter &adapter : adapters)
        names.push_back(adapter.displayName);
    EXPECT_EQ(names, (std::vector<wxString>{"There before", "First adapter", "Second adapter"}));
}

TEST_F(AdapterRecords, AreReadForTwoHundredAdapters) {
    std::vector<std::wstring> nodes{kFirst, kSecond};
    for (int i = 2; i < 200; ++i) {
        nodes.push_back(PutNamed(L"NIC" + std::to_wstring(i), {2, 0, 0, 0, 1, static_cast<BYTE>(i)}));
        network().ChangeAdapter(nodes.back(), [i](auto &adapter) { adapter.ip = "10.1.0." + std::to_string(i); });
    }
    const TcpAdapterList adapters = Records();
    ASSERT_EQ(adapters.size(), 200U);
    unsigned i = 0;
    for (const TcpAdapter &adapter : adapters) {
        EXPECT_EQ(adapter.pnpDevNodeId, nodes[i]);
        if (i >= 2) {
            EXPECT_EQ(adapter.ipAddress, Address(10, 1, 0, i));
            EXPECT_EQ(adapter.macAddress, Bytes({2, 0, 0, 0, 1, static_cast<int>(i)}));
            EXPECT_EQ(adapter.mediaConnectStatus, 0U);
        }
        ++i;
    }
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 2U) << "the first buffer is too small";
}

// ---- Components

TEST_F(AdapterRecords, AreMadeOnlyForVirtualAndPhysicalAdapters) {
    const std::vector<std::pair<DWORD, bool>> cases{
        {0, false},          {NCF_HIDDEN, false},  {2, false},
        {NCF_VIRTUAL, true}, {NCF_PHYSICAL, true}, {NCF_VIRTUAL | NCF_PHYSICAL | NCF_HIDDEN, true}};
    for (const auto &[characteristics, counts] : cases) {
        SCOPED_TRACE(characteristics);
        ChangeFirst([value = characteristics](auto &adapter) { adapter.characteristics = value; });
        const TcpAdapterList adapters = Records();
        ASSERT_EQ(adapters.size(), counts ? 2U : 1U);
        if (counts) {
            EXPECT_EQ(adapters.front().characteristics, characteristics);
        }
        EXPECT_EQ(CountCalls("INetCfgComponent::GetBindName"), adapters.size()) << "others are not queried further";
    }
}

TEST_F(AdapterRecords, AreNotMadeForAComponentWhoseCharacteristicsCannotBeRead) {
    Fail("INetCfgComponent::GetCharacteristics");
    const TcpAdapterList adapters = Records();
    ASSERT_EQ(adapters.size(), 1U);
    EXPECT_EQ(adapters.front().pnpDevNodeId, kSecond);
}

TEST_F(AdapterRecords, AreNotMadeForComponentsOfOtherClasses) {
    (void)Records();
    EXPECT_EQ(Calls({"INetCfg::EnumComponents"}),
              Texts{"INetCfg::EnumComponents({4D36E972-E325-11CE-BFC1-08002BE10318}, *)"});
    EXPECT_EQ(CountCalls("INetCfgComponent::GetCharacteristics"), 2U);
}

TEST_F(AdapterRecords, LackTheNameAndEverythingLookedUpByItWithoutABindName) {
    const TcpAdapter first = FirstWhile("INetCfgComponent::GetBindName");
    EXPECT_EQ(first.bindName, "");
    EXPECT_EQ(first.ipAddress, kNone);
    EXPECT_EQ(first.macAddress, "");
    EXPECT_EQ(first.mediaConnectStatus, kNone);
    EXPECT_EQ(first.pnpDevNodeId, kFirst);
    EXPECT_TRUE(first.boundToFilter);
    EXPECT_EQ(CountCalls("CreateFileW"), 1U) << "only the second adapter is opened";
}

TEST_F(AdapterRecords, HaveStatusZeroWhenItCannotBeRead) {
    ChangeFirst([](auto &adapter) { adapter.deviceStatus = 22; });
    EXPECT_EQ(First().deviceStatus, 22U);
    EXPECT_EQ(FirstWhile("INetCfgComponent::GetDeviceStatus").deviceStatus, 0U);
    ChangeFirst([](auto &adapter) { adapter.deviceStatusResult = E_FAIL; });
    EXPECT_EQ(First().deviceStatus, 0U);
}

TEST_F(AdapterRecords, HaveNoNodeWhenItCannotBeRead) {
    const TcpAdapter first = FirstWhile("INetCfgComponent::GetPnpDevNodeId");
    EXPECT_EQ(first.pnpDevNodeId, "");
    EXPECT_EQ(first.displayName, "First adapter");
    EXPECT_EQ(first.componentId, "PCI\\VEN_8086&DEV_100E");
}

TEST_F(AdapterRecords, HaveNoComponentIdWhenItCannotBeRead) {
    const TcpAdapter first = FirstWhile("INetCfgComponent::GetId");
    EXPECT_EQ(first.componentId, "");
    EXPECT_EQ(first.pnpDevNodeId, kFirst);
    EXPECT_EQ(first.displayName, "First adapter");
}

TEST_F(AdapterRecords, AreNamedAfterTheNodeWithoutADisplayName) {
    EXPECT_EQ(FirstWhile("INetCfgComponent::GetDisplayName").displayName, kFirst);
    ChangeFirst([](auto &adapter) { adapter.displayName.reset(); });
    EXPECT_EQ(First().displayName, kFirst);
}

TEST_F(AdapterRecords, SkipAnAdapterThatVanishesMeanwhile) {
    simulation().Functions().Put<Simulator::System::CreateFileW>([this](const auto &next, auto... arguments) {
        network().RemoveAdapter(kSecond);
        return next(arguments...);
    });
    const TcpAdapterList adapters = Records();
    ASSERT_EQ(adapters.size(), 1U);
    EXPECT_EQ(adapters.front().pnpDevNodeId, kFirst);
}

// ---- IP Helper

TEST_F(AdapterRecords, TreatAddressZeroAsNone) {
    ChangeFirst([](auto &adapter) { adapter.ip = "0.0.0.0"; });
    EXPECT_EQ(First().ipAddress, kNone);
    EXPECT_EQ(First().gatewayAddress, Address(10, 0, 0, 1));
    ChangeFirst([](auto &adapter) {
        adapter.ip = "10.0.0.10";
        adapter.gateway = "0.0.0.0";
    });
    EXPECT_EQ(First().ipAddress, Address(10, 0, 0, 10));
    EXPECT_EQ(First().gatewayAddress, kNone);
}

TEST_F(AdapterRecords, TreatAnInvalidAddressAsNone) {
    for (const char *text : {"no address", "256.0.0.1", "255.255.255.255"}) {
        ChangeFirst([text](auto &adapter) { adapter.ip = adapter.gateway = text; });
        TcpAdapter first = First();
        EXPECT_EQ(first.ipAddress, kNone) << text;
        EXPECT_EQ(first.gatewayAddress, kNone) << text;
    }
}

TEST_F(AdapterRecords, MatchTheirIpHelperRecordCaseInsensitively) {
    ChangeFirst([](auto &adapter) {
        adapter.bindName = L"{ABCDEF}";
        adapter.inIpHelper = false;
    });
    // Not an adapter for the records, but one for IP Helper.
    network().PutAdapter({.id = L"other",
                          .bindName = L"{abcdef}",
                          .pnpDevNodeId = L"OTHER\\1",
                          .characteristics = NCF_HIDDEN,
                          .index = 99,
                          .mac = {6, 5, 4, 3, 2, 1},
                          .ip = "10.9.0.1"});
    const TcpAdapter first = First();
    EXPECT_EQ(first.bindName, "{ABCDEF}");
    EXPECT_EQ(first.adapterIndex, 99U);
    EXPECT_EQ(first.ipAddress, Address(10, 9, 0, 1));
    EXPECT_EQ(first.macAddress, Bytes({6, 5, 4, 3, 2, 1}));
}

TEST_F(AdapterRecords, IgnoreAnIpHelperRecordWithALongerName) {
    ChangeFirst([](auto &adapter) { adapter.inIpHelper = false; });
    network().ChangeAdapter(kSecond, [](auto &adapter) { adapter.bindName = std::wstring(kFirstName) + L"2"; });
    EXPECT_EQ(First().ipAddress, kNone);
}

TEST_F(AdapterRecords, HaveAMacOfTheLengthThatIpHelperReports) {
    for (const std::vector<BYTE> &mac : {std::vector<BYTE>{1}, {1, 2, 3, 4, 5}, {1, 0, 0, 0, 0, 0, 0, 8}}) {
        ChangeFirst([&mac](auto &adapter) { adapter.mac = mac; });
        EXPECT_EQ(First().macAddress, std::string(mac.begin(), mac.end()));
    }
}

TEST_F(AdapterRecords, HaveNoAddressesWhenIpHelperFails) {
    for (const DWORD error : {DWORD{ERROR_NO_DATA}, DWORD{ERROR_NOT_SUPPORTED}, DWORD{ERROR_INVALID_PARAMETER}}) {
        Fail("GetAdaptersInfo", 1, error);
        TcpAdapterList adapters;
        const InTest read = ReadInto(adapters);
        const Texts expected{"3005 GetAdaptersInfo() (" +
                             std::string(error == ERROR_NO_DATA         ? "0xe8"
                                         : error == ERROR_NOT_SUPPORTED ? "0x32"
                                                                        : "0x57") +
                             ")"};
        EXPECT_EQ(read.events, expected);
        EXPECT_EQ(read.errors.size(), 1U);
        EXPECT_EQ(read.left, Texts{});
        EXPECT_EQ(read.failedStep, 0xFFFFFFFF) << "no step has failed";
        ASSERT_EQ(adapters.size(), 2U);
        EXPECT_EQ(adapters.front().ipAddress, kNone);
        EXPECT_EQ(adapters.front().gatewayAddress, kNone);
        EXPECT_EQ(adapters.front().adapterIndex, 0U);
        EXPECT_EQ(adapters.front().macAddress, Bytes({0, 1, 2, 3, 4, 5})) << "from the device";
        EXPECT_EQ(adapters.front().mediaConnectStatus, 0U);
        EXPECT_TRUE(adapters.front().boundToFilter);
    }
}

TEST_F(AdapterRecords, IgnoreTheBufferOfAFailedCall) {
    simulation().Functions().Put<TellAdapters>([](const auto &next, IP_ADAPTER_INFO *records, ULONG *size) {
        EXPECT_EQ(next(records, size), DWORD{ERROR_SUCCESS});
        return ULONG{ERROR_INVALID_FUNCTION};
    });
    TcpAdapterList adapters;
    EXPECT_EQ(ReadInto(adapters).events, Texts{"3005 GetAdaptersInfo() (0x1)"});
    ASSERT_EQ(adapters.size(), 2U);
    EXPECT_EQ(adapters.front().ipAddress, kNone);
    EXPECT_EQ(adapters.front().adapterIndex, 0U);
}

TEST_F(AdapterRecords, AskIpHelperAgainWhenItsAnswerHasGrown) {
    const auto plan = simulation().GetFaults().FailNth("GetAdaptersInfo", 1, ERROR_BUFFER_OVERFLOW);
    EXPECT_EQ(First().ipAddress, Address(10, 0, 0, 10));
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 2U);
}

TEST_F(AdapterRecords, AskIpHelperTwiceAtMost) {
    const auto plan = simulation().GetFaults().FailEvery("GetAdaptersInfo", ERROR_BUFFER_OVERFLOW);
    TcpAdapterList adapters;
    const InTest read = ReadInto(adapters);
    EXPECT_EQ(plan->Hits(), 2U);
    EXPECT_EQ(read.events, Texts{"3005 GetAdaptersInfo() (0x6f)"});
    ASSERT_EQ(adapters.size(), 2U);
    EXPECT_EQ(adapters.front().ipAddress, kNone);
}

TEST_F(AdapterRecords, AreNotMadeWithoutMemoryForIpHelperAndTheConfigurationStaysOpen) {
    TcpAdapterList adapters;
    const auto fault = balance().FailAllocation(1, GetModuleHandleW(nullptr), GetCurrentThreadId(), false);
    const InTest read = ReadInto(adapters);
    EXPECT_TRUE(fault->Hit());
    EXPECT_EQ(read.errors, Texts{"GetInterfaces() - error allocating memory."});
    EXPECT_EQ(read.events, Texts{});
    EXPECT_EQ(read.failedStep, 7U);
    EXPECT_EQ(read.left, (Texts{"COM initialisation", "COM reference"}));
    EXPECT_EQ(adapters.size(), 0U);
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 0U);
}

TEST_F(AdapterRecords, HaveNoAddressesWithoutMemoryForAllOfThem) {
    for (int i = 0; i < 20; ++i)
        (void)PutNamed(L"NIC" + std::to_wstring(i), {2, 0, 0, 0, 2, static_cast<BYTE>(i)});
    TcpAdapterList adapters;
    const auto fault = balance().FailAllocation(2, GetModuleHandleW(nullptr), GetCurrentThreadId(), false);
    const InTest read = ReadInto(adapters);
    EXPECT_TRUE(fault->Hit());
    ASSERT_EQ(read.errors.size(), 2U);
    EXPECT_EQ(read.errors[0], "GetInterfaces() - error allocating memory.");
    EXPECT_TRUE(read.errors[1].starts_with("GetAdaptersInfo(): ")) << read.errors[1];
    EXPECT_EQ(read.events, Texts{"3005 GetAdaptersInfo() (0x6f)"});
    EXPECT_EQ(read.left, Texts{});
    ASSERT_EQ(adapters.size(), 22U);
    EXPECT_EQ(adapters.front().ipAddress, kNone);
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 1U);
}

// ---- The device

TEST_F(AdapterRecords, OpenTheDeviceByItsName) {
    (void)Records();
    const std::string name = "{11111111-0000-0000-0000-000000000001}";
    const Texts calls = Calls({"CreateFileW", "DeviceIoControl", "CloseHandle"});
    ASSERT_GE(calls.size(), 4U);
    EXPECT_EQ(calls[0].find("CreateFileW(\"\\\\.\\" + name + "\", 2147483648, 1, null, 3, "), 0U) << calls[0];
    EXPECT_EQ(calls[1], "DeviceIoControl(*, 1507330, *, 4, *, 4, *, null)");
    EXPECT_EQ(calls[2], "DeviceIoControl(*, 1507330, *, 4, *, 8, *, null)");
    EXPECT_EQ(calls[3], "CloseHandle(*)");
}

TEST_F(AdapterRecords, AskTheDeviceForAMacThatIpHelperDoesNotHave) {
    ChangeFirst([](auto &adapter) { adapter.inIpHelper = false; });
    EXPECT_EQ(First().macAddress, Bytes({0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(Questions().front(), "DeviceIoControl(*, 1507330, *, 4, *, 16, *, null)");
    EXPECT_EQ(Questions().size(), 5U) << "one more than for the second adapter";
}

TEST_F(AdapterRecords, HaveAMacOfTheLengthThatTheDeviceReports) {
    for (const std::size_t length : {1U, 6U, 8U, 16U}) {
        ChangeFirst([length](auto &adapter) {
            adapter.inIpHelper = false;
            adapter.mac.assign(length, 7);
        });
        EXPECT_EQ(First().macAddress, std::string(length, '\7'));
    }
}

TEST_F(AdapterRecords, HaveNoMacWhenTheDeviceReportsNoneOrTooManyBytes) {
    ChangeFirst([](auto &adapter) { adapter.inIpHelper = false; });
    EXPECT_EQ(FirstWhile("DeviceIoControl").macAddress, "");
    EXPECT_EQ(FirstWhile("DeviceIoControl").mediaConnectStatus, 0U) << "the other queries are made";
    ChangeFirst([](auto &adapter) { adapter.mac.assign(17, 7); });
    EXPECT_EQ(First().macAddress, "");
}

TEST_F(AdapterRecords, HaveTheConnectionStateThatTheDeviceReports) {
    for (const DWORD status : {0U, 1U, 2U}) {
        ChangeFirst([status](auto &adapter) { adapter.mediaStatus = status; });
        EXPECT_EQ(First().mediaConnectStatus, status);
    }
}

TEST_F(AdapterRecords, HaveAnUnknownConnectionStateWhenTheDeviceDoesNotReportIt) {
    EXPECT_EQ(FirstWhile("DeviceIoControl", 1).mediaConnectStatus, kNone);
    EXPECT_EQ(FirstWhile("DeviceIoControl", 1).framesReceived, 1000U) << "the other query is made";
    ChangeFirst([](auto &adapter) { adapter.mediaStatus.reset(); });
    EXPECT_EQ(First().mediaConnectStatus, kNone);
}

TEST_F(AdapterRecords, KeepTheirOtherFieldsWithoutTheDevice) {
    const TcpAdapter first = FirstWhile("CreateFileW");
    EXPECT_EQ(first.mediaConnectStatus, kNone);
    EXPECT_EQ(first.framesReceived, 0U);
    EXPECT_EQ(first.macAddress, Bytes({0, 1, 2, 3, 4, 5}));
    EXPECT_EQ(first.ipAddress, Address(10, 0, 0, 10));
}

TEST_F(AdapterRecords, CountFramesIn64Bits) {
    ChangeFirst([](auto &adapter) { adapter.frames = 0x1'2345'6789'ABCD; });
    EXPECT_EQ(First().framesReceived, 0x1'2345'6789'ABCDU);
}

TEST_F(AdapterRecords, CountFramesIn32BitsWhenTheDriverReportsNoMore) {
    ChangeFirst([](auto &adapter) {
        adapter.frames = 0x8000'0005;
        adapter.framesSize = 4;
    });
    EXPECT_EQ(First().framesReceived, 0x8000'0005U);
    const Texts questions = Questions();
    ASSERT_GE(questions.size(), 3U);
    EXPECT_EQ(questions[1], "DeviceIoControl(*, 1507330, *, 4, *, 8, *, null)");
    EXPECT_EQ(questions[2], "DeviceIoControl(*, 1507330, *, 4, *, 4, *, null)");
}

TEST_F(AdapterRecords, CountFramesIn32BitsWhenTheQueryFor64BitsFails) {
    EXPECT_EQ(FirstWhile("DeviceIoControl", 2).framesReceived, 1000U);
    EXPECT_EQ(Questions()[2], "DeviceIoControl(*, 1507330, *, 4, *, 4, *, null)");
}

TEST_F(AdapterRecords, CountNoFramesWhenTheAnswerIsTooShort) {
    for (const DWORD size : {0U, 2U}) {
        ChangeFirst([size](auto &adapter) { adapter.framesSize = size; });
        EXPECT_EQ(First().framesReceived, 0U) << size;
    }
}

TEST_F(AdapterRecords, CountNoFramesWhenTheDeviceReportsNone) {
    ChangeFirst([](auto &adapter) { adapter.frames.reset(); });
    EXPECT_EQ(First().framesReceived, 0U);
    EXPECT_EQ(First().mediaConnectStatus, 0U);
}

TEST_F(AdapterRecords, AskFor64BitsFromVersion51On) {
    const std::vector<std::pair<std::pair<DWORD, DWORD>, bool>> versions{
        {{4, 0}, false}, {{4, 9}, false}, {{5, 0}, false}, {{5, 1}, true},
        {{5, 2}, true},  {{6, 0}, true},  {{10, 0}, true}};
    ChangeFirst([](auto &adapter) { adapter.frames = 0x5'0000'0007; });
    for (const auto &[version, longer] : versions) {
        SCOPED_TRACE(std::to_string(version.first) + "." + std::to_string(version.second));
        RunOnVersion(version.first, version.second);
        EXPECT_EQ(First().framesReceived, longer ? 0x5'0000'0007U : 7U);
        EXPECT_EQ(Questions()[1].find("DeviceIoControl(*, 1507330, *, 4, *, " + std::string(longer ? "8" : "4")), 0U);
    }
}

// ---- What is bound

TEST_F(AdapterRecords, AreBoundToIpByEitherProtocol) {
    struct Case {
        bool ip;
        bool ip6;
    };
    for (const auto &[ip, ip6] : {Case{false, false}, Case{false, true}, Case{true, false}, Case{true, true}}) {
        network().Bind(kFirst, L"ms_tcpip", ip);
        network().Bind(kFirst, L"ms_tcpip6", ip6);
        EXPECT_EQ(First().boundToIp, ip || ip6);
    }
}

TEST_F(AdapterRecords, DoNotCheckTheSecondProtocolWhenTheFirstIsBound) {
    (void)Records();
    EXPECT_EQ(CountCalls("INetCfgComponentBindings::IsBoundTo"), 4U);
    network().Bind(kFirst, L"ms_tcpip", false);
    (void)Records();
    EXPECT_EQ(CountCalls("INetCfgComponentBindings::IsBoundTo"), 5U);
}

TEST_F(AdapterRecords, AreBoundToTheFilterOnlyByAnEnabledBinding) {
    EXPECT_TRUE(First().boundToFilter);
    network().Bind(kFirst, L"qbimvta", false);
    EXPECT_FALSE(First().boundToFilter);
    EXPECT_FALSE(Records().back().boundToFilter) << "there is no binding at all";
}

TEST_F(AdapterRecords, AreNotBoundToAnAbsentComponent) {
    const std::vector<std::wstring> ids{L"ms_tcpip", L"ms_tcpip6", L"qbimvta"};
    for (unsigned missing = 0; missing < 8; ++missing) {
        SCOPED_TRACE(missing);
        network().Use([&](Simulator::NetworkState &state) {
            std::erase_if(state.components, [](const auto &component) { return !component.adapter; });
        });
        for (unsigned i = 0; i < 3; ++i) {
            if ((missing & (1U << i)) == 0)
                network().Put({.id = ids[i]});
            network().Bind(kFirst, ids[i]);
        }
        TcpAdapter first = First();
        EXPECT_EQ(first.boundToIp, (missing & 3U) != 3U);
        EXPECT_EQ(first.boundToFilter, (missing & 4U) == 0);
    }
}

TEST_F(AdapterRecords, AreNotBoundToAComponentThatCannotBeFoundOrQueried) {
    network().Bind(kFirst, L"ms_tcpip6");
    for (const char *function : {"INetCfg::FindComponent", "INetCfgComponent::QueryInterface"}) {
        SCOPED_TRACE(function);
        EXPECT_TRUE(FirstWhile(function, 1).boundToIp) << "by the other protocol";
        network().Bind(kFirst, L"ms_tcpip6", false);
        EXPECT_FALSE(FirstWhile(function, 1).boundToIp);
        EXPECT_TRUE(FirstWhile(function, 2).boundToIp);
        network().Bind(kFirst, L"ms_tcpip6");
        const TcpAdapter first = FirstWhile(function, 3);
        EXPECT_TRUE(first.boundToIp);
        EXPECT_FALSE(first.boundToFilter);
    }
}

TEST_F(AdapterRecords, AreNotBoundToAComponentThatDoesNotAnswer) {
    EXPECT_FALSE(FirstWhile("INetCfgComponentBindings::IsBoundTo", 1).boundToIp);
    const TcpAdapter first = FirstWhile("INetCfgComponentBindings::IsBoundTo", 2);
    EXPECT_TRUE(first.boundToIp);
    EXPECT_FALSE(first.boundToFilter);
    network().Bind(kFirst, L"ms_tcpip6");
    EXPECT_TRUE(FirstWhile("INetCfgComponentBindings::IsBoundTo", 1).boundToIp) << "by the other protocol";
}

// ---- The configuration, and the step

TEST_F(AdapterRecords, AreReadInAStepWithALimitOfTenSeconds) {
    TcpAdapterList adapters;
    const InTest read = ReadInto(adapters);
    EXPECT_EQ(read.steps, (Texts{" >GettingAdapterInfo. 10s max", " <GettingAdapterInfo"}));
    EXPECT_EQ(read.lines, Texts{});
    EXPECT_EQ(read.errors, Texts{});
}

TEST_F(AdapterRecords, AreReadWithoutTheWriteLock) {
    network().LockFromElsewhere(L"Somebody");
    EXPECT_EQ(Records().size(), 2U);
    EXPECT_EQ(CountCalls("INetCfgLock::AcquireWriteLock"), 0U);
}

TEST_F(AdapterRecords, AreNotMadeWithoutTheConfiguration) {
    const std::vector<std::pair<std::string, std::uint32_t>> calls{
        {"CoInitializeEx", 7}, {"CoCreateInstance", 9}, {"INetCfg::Initialize", 9}};
    for (const auto &[function, step] : calls) {
        SCOPED_TRACE(function);
        Fail(function, 1, static_cast<DWORD>(E_ACCESSDENIED));
        TcpAdapterList adapters;
        const InTest read = ReadInto(adapters);
        EXPECT_EQ(adapters.size(), 0U);
        EXPECT_EQ(read.failedStep, step) << "the first that failed";
        EXPECT_EQ(read.events.size(), 1U);
        EXPECT_EQ(read.left, Texts{});
        EXPECT_EQ(read.steps, (Texts{" >GettingAdapterInfo. 10s max", " <GettingAdapterInfo"}));
        EXPECT_EQ(CountCalls("GetAdaptersInfo"), 0U);
    }
}

TEST_F(AdapterRecords, AreNotMadeWhenTheComponentsCannotBeEnumerated) {
    Fail("INetCfg::EnumComponents");
    TcpAdapterList adapters;
    const InTest read = ReadInto(adapters);
    EXPECT_EQ(adapters.size(), 0U);
    EXPECT_EQ(read.failedStep, 0xFFFFFFFF) << "no step has failed";
    EXPECT_EQ(read.events, Texts{});
    EXPECT_EQ(read.left, Texts{});
}

TEST_F(AdapterRecords, EndWhereTheEnumerationEnds) {
    Fail("IEnumNetCfgComponent::Next", 2);
    const TcpAdapterList adapters = Records();
    ASSERT_EQ(adapters.size(), 1U);
    EXPECT_EQ(adapters.front().pnpDevNodeId, kFirst);
}

TEST_F(AdapterRecords, AreReadByTheInstallationWithoutAnythingLeftOpen) {
    (void)InstallInBalance();
    EXPECT_EQ(CountCalls("GetAdaptersInfo"), 3U) << "before, for the unsuitable adapters, and for their health";
}

}  // namespace
