#include "IpHelper.h"

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include <windows.h>
#include <iphlpapi.h>

#include "SimulatorNetworkSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr DWORD kSuccess = NO_ERROR;
constexpr std::array<BYTE, 6> kGateway{0x02, 0, 0, 0, 0, 0x09};

class SimulatedIpHelper : public SimulatedNetwork {
protected:
    SimulatedIpHelper() {
        network.PutAdapter({.id = L"pci\\card",
                            .bindName = L"{one}",
                            .pnpDevNodeId = L"PCI\\1",
                            .displayName = L"First",
                            .index = 7,
                            .mac = {1, 2, 3, 4, 5, 6},
                            .ip = "10.0.0.2",
                            .gateway = "10.0.0.1",
                            .gatewayMac = {kGateway.begin(), kGateway.end()}});
    }
    void PutSecond() { network.PutAdapter({.id = L"usb", .bindName = L"{two}", .pnpDevNodeId = L"USB\\1"}); }
    static std::vector<IP_ADAPTER_INFO> Records(std::size_t room = 4) {
        std::vector<IP_ADAPTER_INFO> records(room);
        auto size = static_cast<ULONG>(room * sizeof(IP_ADAPTER_INFO));
        EXPECT_EQ(GetAdaptersInfo(records.data(), &size), kSuccess);
        return records;
    }
    struct Arp {
        DWORD result = 0;
        ULONG size = 0;
        std::array<BYTE, 8> mac{};
    };
    static Arp Send(const char *address, ULONG size = 8) {
        Arp arp{.size = size};
        arp.result = SendARP(inet_addr(address), 0, arp.mac.data(), &arp.size);
        return arp;
    }
    /// The rows of the ARP cache, as text.
    static std::vector<std::string> Rows(BOOL ordered = FALSE) {
        alignas(MIB_IPNETTABLE) std::array<char, 1024> buffer{};
        auto *table = reinterpret_cast<MIB_IPNETTABLE *>(buffer.data());
        ULONG size = sizeof buffer;
        std::vector<std::string> rows;
        if (GetIpNetTable(table, &size, ordered) != NO_ERROR)
            return rows;
        for (const MIB_IPNETROW *row = table->table; row != table->table + table->dwNumEntries; ++row) {
            in_addr address{};
            address.s_addr = row->dwAddr;
            rows.push_back(std::to_string(row->dwIndex) + " " + inet_ntoa(address) + " " +
                           std::to_string(row->dwPhysAddrLen) + " " + std::to_string(row->dwType));
        }
        return rows;
    }
    using Texts = std::vector<std::string>;
};

}  // namespace

TEST_F(SimulatedIpHelper, ReportsAnAdaptersAddresses) {
    const IP_ADAPTER_INFO record = Records().front();
    EXPECT_STREQ(record.AdapterName, "{one}");
    EXPECT_STREQ(record.Description, "First");
    EXPECT_EQ(record.Index, 7U);
    EXPECT_EQ(record.AddressLength, 6U);
    EXPECT_EQ(std::memcmp(record.Address, "\1\2\3\4\5\6\0\0", 8), 0);
    EXPECT_STREQ(record.IpAddressList.IpAddress.String, "10.0.0.2");
    EXPECT_STREQ(record.GatewayList.IpAddress.String, "10.0.0.1");
    EXPECT_EQ(record.IpAddressList.Next, nullptr);
    EXPECT_EQ(record.Next, nullptr);
}

TEST_F(SimulatedIpHelper, ChainsTheAdaptersThatItKnows) {
    PutSecond();
    network.PutAdapter({.id = L"x", .bindName = L"{x}", .pnpDevNodeId = L"X\\1", .inIpHelper = false});
    const auto records = Records();
    ASSERT_EQ(records[0].Next, &records[1]);
    EXPECT_STREQ(records[1].AdapterName, "{two}");
    EXPECT_STREQ(records[1].IpAddressList.IpAddress.String, "0.0.0.0");
    EXPECT_EQ(records[1].AddressLength, 0U);
    EXPECT_NE(records[1].Index, 7U);
    EXPECT_NE(records[1].Index, 0U);
    EXPECT_EQ(records[1].Next, nullptr);
}

TEST_F(SimulatedIpHelper, TruncatesWhatIsTooLongForItsRecord) {
    network.ChangeAdapter(L"PCI\\1", [](NetworkAdapter &adapter) {
        adapter.mac.assign(20, 0xFF);
        adapter.displayName = std::wstring(1'000, L'x');
    });
    const IP_ADAPTER_INFO record = Records().front();
    EXPECT_EQ(record.AddressLength, 8U);
    EXPECT_EQ(record.Index, 7U) << "behind the address";
    EXPECT_EQ(std::strlen(record.Description), sizeof record.Description - 1);
}

TEST_F(SimulatedIpHelper, RequiresALargeEnoughBuffer) {
    PutSecond();
    std::array<IP_ADAPTER_INFO, 2> records{};
    ULONG size = 1;
    EXPECT_EQ(GetAdaptersInfo(nullptr, &size), static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));
    EXPECT_EQ(size, sizeof records);
    --size;
    EXPECT_EQ(GetAdaptersInfo(records.data(), &size), static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));
    EXPECT_EQ(records[0].Index, 0U);
    EXPECT_EQ(size, sizeof records);
    EXPECT_EQ(GetAdaptersInfo(records.data(), &size), kSuccess);
    EXPECT_EQ(records[0].Index, 7U);
    EXPECT_EQ(GetAdaptersInfo(records.data(), nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(SimulatedIpHelper, HasNoDataWithoutAdaptersAndRows) {
    network.RemoveAdapter(L"pci\\1");
    ULONG size = 0;
    EXPECT_EQ(GetAdaptersInfo(nullptr, &size), static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(GetIpNetTable(nullptr, &size, FALSE), static_cast<DWORD>(ERROR_NO_DATA));
    EXPECT_EQ(size, 0U);
}

TEST_F(SimulatedIpHelper, ReportsTheArpCacheAndDeletesRows) {
    network.Use([](NetworkState &state) {
        state.arp = {{7, "10.0.0.200", {1, 2, 3, 4, 5, 6}, MIB_IPNET_TYPE_STATIC},
                     {7, "10.0.0.1", {1}, MIB_IPNET_TYPE_DYNAMIC},
                     {8, "9.0.0.1", {}, MIB_IPNET_TYPE_INVALID}};
    });
    EXPECT_EQ(Rows(), (Texts{"7 10.0.0.200 6 4", "7 10.0.0.1 1 3", "8 9.0.0.1 0 2"}));
    EXPECT_EQ(Rows(TRUE), (Texts{"8 9.0.0.1 0 2", "7 10.0.0.1 1 3", "7 10.0.0.200 6 4"}));
    MIB_IPNETROW row{};
    row.dwIndex = 8;
    row.dwAddr = inet_addr("10.0.0.1");
    EXPECT_EQ(DeleteIpNetEntry(&row), static_cast<DWORD>(ERROR_NOT_FOUND)) << "of another adapter";
    row.dwIndex = 7;
    EXPECT_EQ(DeleteIpNetEntry(&row), kSuccess);
    EXPECT_EQ(DeleteIpNetEntry(&row), static_cast<DWORD>(ERROR_NOT_FOUND));
    EXPECT_EQ(DeleteIpNetEntry(nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(Rows(), (Texts{"7 10.0.0.200 6 4", "8 9.0.0.1 0 2"}));
}

TEST_F(SimulatedIpHelper, RequiresABufferForTheWholeArpCache) {
    network.Use([](NetworkState &state) { state.arp.resize(3, {1, "10.0.0.1", {}}); });
    alignas(MIB_IPNETTABLE) std::array<char, 512> buffer{};
    auto *table = reinterpret_cast<MIB_IPNETTABLE *>(buffer.data());
    ULONG size = 0;
    EXPECT_EQ(GetIpNetTable(nullptr, &size, FALSE), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(size, 4 + 3 * sizeof(MIB_IPNETROW));
    --size;
    EXPECT_EQ(GetIpNetTable(table, &size, FALSE), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(table->dwNumEntries, 0U);
    EXPECT_EQ(GetIpNetTable(table, &size, FALSE), kSuccess);
    EXPECT_EQ(table->dwNumEntries, 3U);
    EXPECT_EQ(GetIpNetTable(table, nullptr, FALSE), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST_F(SimulatedIpHelper, ResolvesTheGatewayOfAConnectedAdapter) {
    const Arp answer = Send("10.0.0.1");
    EXPECT_EQ(answer.result, kSuccess);
    EXPECT_EQ(answer.size, 6U);
    EXPECT_EQ(std::memcmp(answer.mac.data(), kGateway.data(), kGateway.size()), 0);
    EXPECT_EQ(Rows(), (Texts{"7 10.0.0.1 6 3"}));
    network.ChangeAdapter(L"PCI\\1", [](NetworkAdapter &adapter) { adapter.mediaStatus = 1; });
    EXPECT_EQ(Send("10.0.0.1").result, kSuccess) << "out of the cache";
    network.Use([](NetworkState &state) { state.arp.clear(); });
    EXPECT_EQ(Send("10.0.0.1").result, static_cast<DWORD>(ERROR_BAD_NET_NAME));
    EXPECT_TRUE(Rows().empty());
}

TEST_F(SimulatedIpHelper, ResolvesNothingThatDoesNotAnswer) {
    EXPECT_EQ(Send("10.0.0.77").result, static_cast<DWORD>(ERROR_BAD_NET_NAME));
    EXPECT_EQ(Send("10.0.0.1", 5).result, static_cast<DWORD>(ERROR_BUFFER_OVERFLOW));
    EXPECT_EQ(SendARP(0, 0, nullptr, nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    network.ChangeAdapter(L"PCI\\1", [](NetworkAdapter &adapter) { adapter.gatewayMac.clear(); });
    EXPECT_EQ(Send("10.0.0.1").result, static_cast<DWORD>(ERROR_BAD_NET_NAME));
}

TEST_F(SimulatedIpHelper, FailsAsPlannedAndIsInTheJournal) {
    (void)journal().Take();
    (void)faults().FailNth("SendARP", 1, ERROR_GEN_FAILURE);
    (void)faults().FailNth("GetAdaptersInfo", 1, ERROR_NOT_SUPPORTED);
    ULONG size = 0;
    EXPECT_EQ(Send("10.0.0.1").result, static_cast<DWORD>(ERROR_GEN_FAILURE));
    EXPECT_EQ(GetAdaptersInfo(nullptr, &size), static_cast<DWORD>(ERROR_NOT_SUPPORTED));
    EXPECT_EQ(journal().Names(), (Texts{"SendARP", "GetAdaptersInfo"}));
}

// Compares what needs no network.
TEST(RealIpHelper, BehavesLikeTheSimulatedOne) {
    const auto ask = [] {
        ULONG size = 0;
        return std::vector<DWORD>{GetAdaptersInfo(nullptr, nullptr), GetIpNetTable(nullptr, nullptr, FALSE),
                                  GetAdaptersInfo(nullptr, &size)};
    };
    const std::vector<DWORD> real = ask();
    Simulation simulation({.registry = false, .folders = false});
    simulation.GetNetwork().PutAdapter({.id = L"x", .bindName = L"{x}", .pnpDevNodeId = L"X"});
    (void)simulation.Attach(ThisProgram());
    EXPECT_EQ(ask(), real);
    EXPECT_EQ(simulation.GetJournal().Count("GetAdaptersInfo"), 2U);
}
