#include "IpHelper.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>
#include <iphlpapi.h>

#include "ArgumentText.h"
#include "FunctionSet.h"
#include "NetworkConfiguration.h"

namespace Simulator {

namespace System {

SIMULATOR_FUNCTION(GetAdaptersInfo, "IPHLPAPI.DLL", ReturnsStatus);
SIMULATOR_FUNCTION(GetIpNetTable, "IPHLPAPI.DLL", ReturnsStatus);
SIMULATOR_FUNCTION(DeleteIpNetEntry, "IPHLPAPI.DLL", ReturnsStatus);
SIMULATOR_FUNCTION(SendARP, "IPHLPAPI.DLL", ReturnsStatus);

}  // namespace System

namespace {

constexpr ULONG kMacSize = 6;

template <std::size_t N>
void Fill(char (&to)[N], const std::string &text) {
    const std::size_t length = std::min(text.size(), N - 1);
    std::memcpy(to, text.data(), length);
    to[length] = '\0';
}

/// @return the size of the buffer in bytes.
template <std::size_t N>
DWORD Fill(BYTE (&to)[N], const std::vector<BYTE> &mac) {
    const std::size_t length = std::min(mac.size(), N);
    std::copy_n(mac.begin(), length, to);
    return static_cast<DWORD>(length);
}

IP_ADAPTER_INFO RecordOf(const NetworkAdapter &adapter) {
    IP_ADAPTER_INFO record{};
    Fill(record.AdapterName, Utf8(adapter.bindName));
    Fill(record.Description, Utf8(adapter.displayName.value_or(L"")));
    record.AddressLength = Fill(record.Address, adapter.mac);
    record.Index = adapter.index;
    record.Type = MIB_IF_TYPE_ETHERNET;
    Fill(record.IpAddressList.IpAddress.String, adapter.ip);
    Fill(record.GatewayList.IpAddress.String, adapter.gateway);
    return record;
}

ULONG TellAdapters(const NetworkState &state, IP_ADAPTER_INFO *records, ULONG *size) {
    std::vector<IP_ADAPTER_INFO> found;
    for (const NetworkComponent &component : state.components) {
        if (component.adapter && component.adapter->inIpHelper)
            found.push_back(RecordOf(*component.adapter));
    }
    if (size == nullptr)
        return ERROR_INVALID_PARAMETER;
    if (found.empty())
        return ERROR_NO_DATA;
    const auto needed = static_cast<ULONG>(found.size() * sizeof(IP_ADAPTER_INFO));
    if (records == nullptr || *size < needed) {
        *size = needed;
        return ERROR_BUFFER_OVERFLOW;
    }
    for (std::size_t i = 0; i < found.size(); ++i) {
        records[i] = found[i];
        records[i].Next = i + 1 < found.size() ? &records[i + 1] : nullptr;
    }
    return ERROR_SUCCESS;
}

MIB_IPNETROW RowOf(const ArpEntry &entry) {
    MIB_IPNETROW row{};
    row.dwIndex = entry.index;
    row.dwPhysAddrLen = Fill(row.bPhysAddr, entry.mac);
    row.dwAddr = inet_addr(entry.address.c_str());
    row.dwType = entry.type;
    return row;
}

ULONG TellArp(const NetworkState &state, MIB_IPNETTABLE *table, ULONG *size, bool ordered) {
    if (size == nullptr)
        return ERROR_INVALID_PARAMETER;
    if (state.arp.empty())
        return ERROR_NO_DATA;
    const auto needed = static_cast<ULONG>(offsetof(MIB_IPNETTABLE, table) + state.arp.size() * sizeof(MIB_IPNETROW));
    if (table == nullptr || *size < needed) {
        *size = needed;
        return ERROR_INSUFFICIENT_BUFFER;
    }
    std::vector<MIB_IPNETROW> rows;
    std::transform(state.arp.begin(), state.arp.end(), std::back_inserter(rows), RowOf);
    const auto lower = [](const auto &a, const auto &b) {
        return std::pair(_byteswap_ulong(a.dwAddr), a.dwIndex) < std::pair(_byteswap_ulong(b.dwAddr), b.dwIndex);
    };
    if (ordered)
        std::sort(rows.begin(), rows.end(), lower);
    table->dwNumEntries = static_cast<DWORD>(rows.size());
    std::copy(rows.begin(), rows.end(), table->table);
    return NO_ERROR;
}

DWORD DeleteArp(NetworkState &state, const MIB_IPNETROW *row) {
    if (row == nullptr)
        return ERROR_INVALID_PARAMETER;
    const auto gone = std::erase_if(state.arp, [row](const ArpEntry &entry) {
        return entry.index == row->dwIndex && inet_addr(entry.address.c_str()) == row->dwAddr;
    });
    return gone == 0 ? ERROR_NOT_FOUND : NO_ERROR;
}

bool Answers(const NetworkAdapter &adapter, IPAddr address) {
    return adapter.mediaStatus == 0U && !adapter.gatewayMac.empty() && inet_addr(adapter.gateway.c_str()) == address;
}

/// The address that answers ARP; empty if none does.
std::vector<BYTE> Resolve(NetworkState &state, IPAddr address) {
    for (const ArpEntry &entry : state.arp) {
        if (entry.type != MIB_IPNET_TYPE_INVALID && inet_addr(entry.address.c_str()) == address)
            return entry.mac;
    }
    for (const NetworkComponent &component : state.components) {
        if (!component.adapter || !Answers(*component.adapter, address))
            continue;
        state.arp.push_back({component.adapter->index, component.adapter->gateway, component.adapter->gatewayMac});
        return component.adapter->gatewayMac;
    }
    return {};
}

DWORD TellMac(NetworkState &state, IPAddr address, void *mac, ULONG *size) {
    if (mac == nullptr || size == nullptr)
        return ERROR_INVALID_PARAMETER;
    if (*size < kMacSize)
        return ERROR_BUFFER_OVERFLOW;
    const std::vector<BYTE> found = Resolve(state, address);
    if (found.empty())
        return ERROR_BAD_NET_NAME;
    *size = static_cast<ULONG>(std::min<std::size_t>(*size, found.size()));
    std::memcpy(mac, found.data(), *size);
    return NO_ERROR;
}

}  // namespace

void InstallIpHelper(FunctionSet &functions, const std::shared_ptr<NetworkConfiguration> &network) {
    functions.Put<System::GetAdaptersInfo>([network](const auto &, IP_ADAPTER_INFO *records, ULONG *size) {
        return network->Use([&](const NetworkState &state) { return TellAdapters(state, records, size); });
    });
    functions.Put<System::GetIpNetTable>([network](const auto &, MIB_IPNETTABLE *table, ULONG *size, BOOL order) {
        return network->Use([&](const NetworkState &state) { return TellArp(state, table, size, order != FALSE); });
    });
    functions.Put<System::DeleteIpNetEntry>([network](const auto &, MIB_IPNETROW *row) {
        return network->Use([&](NetworkState &state) { return DeleteArp(state, row); });
    });
    functions.Put<System::SendARP>([network](const auto &, IPAddr address, IPAddr, void *mac, ULONG *size) {
        return network->Use([&](NetworkState &state) { return TellMac(state, address, mac, size); });
    });
}

}  // namespace Simulator
