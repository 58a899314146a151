#include "AdapterRecords.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <windows.h>
#include <ntddndis.h>
#include <wx/utils.h>

#include "NetworkComponents.h"
#include "common/Unique.h"

namespace {

std::uint32_t AdapterAddressFromIpHelper(const IP_ADDR_STRING &entry) {
    const std::uint32_t address = inet_addr(entry.IpAddress.String);
    return address == 0 ? kNoAddress : address;
}

void FillAdapterRecordFromIpHelper(const IpHelperByName &records, TcpAdapter &adapter) {
    const IP_ADAPTER_INFO *const record = records.Find(adapter.bindName);
    if (record == nullptr)
        return;
    adapter.adapterIndex = record->Index;
    const std::size_t length = std::min<std::size_t>(record->AddressLength, sizeof(record->Address));
    adapter.macAddress.assign(reinterpret_cast<const char *>(record->Address), length);
    adapter.gatewayAddress = AdapterAddressFromIpHelper(record->GatewayList);
    adapter.ipAddress = AdapterAddressFromIpHelper(record->IpAddressList);
}

/// @return the number of bytes in the driver's answer; nothing on failure.
std::optional<DWORD> QueryNdisForAdapterRecord(const UniqueHandle &device, ULONG id, void *answer, DWORD size) {
    DWORD length = 0;
    const BOOL answered =
        DeviceIoControl(device.get(), IOCTL_NDIS_QUERY_GLOBAL_STATS, &id, sizeof(id), answer, size, &length, nullptr);
    return answered != 0 ? std::optional(std::min(length, size)) : std::nullopt;
}

std::uint64_t ReadAdapterFramesReceived(const UniqueHandle &device) {
    int major = 0;
    int minor = 0;
    (void)wxGetOsVersion(&major, &minor);
    std::uint64_t frames = 0;
    if ((major > 5 || (major == 5 && minor >= 1)) &&
        QueryNdisForAdapterRecord(device, OID_GEN_RCV_OK, &frames, sizeof(frames)) == sizeof(frames))
        return frames;
    std::uint32_t fewer = 0;
    return QueryNdisForAdapterRecord(device, OID_GEN_RCV_OK, &fewer, sizeof(fewer)) == sizeof(fewer) ? fewer : 0;
}

void FillAdapterRecordFromNdis(TcpAdapter &adapter) {
    const wxString path = "\\\\.\\" + adapter.bindName;
    const UniqueHandle device(UniqueHandleOrNull(
        CreateFileW(path.wc_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr)));
    if (!device)
        return;
    if (adapter.macAddress.empty()) {
        std::array<char, 16> address{};
        const auto length =
            QueryNdisForAdapterRecord(device, OID_802_3_CURRENT_ADDRESS, address.data(), sizeof(address));
        adapter.macAddress.assign(address.data(), length.value_or(0));
    }
    std::uint32_t status = kMediaUnknown;
    if (QueryNdisForAdapterRecord(device, OID_GEN_MEDIA_CONNECT_STATUS, &status, sizeof(status)))
        adapter.mediaConnectStatus = status;
    adapter.framesReceived = ReadAdapterFramesReceived(device);
}

}  // namespace

std::optional<TcpAdapter> ReadAdapterRecord(INetCfgComponent *component, const IpHelperByName &ipHelper) {
    TcpAdapter adapter;
    DWORD characteristics = 0;
    (void)component->GetCharacteristics(&characteristics);
    if ((characteristics & (NCF_VIRTUAL | NCF_PHYSICAL)) == 0)
        return std::nullopt;
    adapter.characteristics = characteristics;
    (void)ReadNetworkComponentText(component, &INetCfgComponent::GetBindName, adapter.bindName);
    ULONG deviceStatus = 0;
    if (SUCCEEDED(component->GetDeviceStatus(&deviceStatus)))
        adapter.deviceStatus = deviceStatus;
    (void)ReadNetworkComponentText(component, &INetCfgComponent::GetPnpDevNodeId, adapter.pnpDevNodeId);
    (void)ReadNetworkComponentText(component, &INetCfgComponent::GetId, adapter.componentId);
    if (!ReadNetworkComponentText(component, &INetCfgComponent::GetDisplayName, adapter.displayName))
        adapter.displayName = adapter.pnpDevNodeId;
    FillAdapterRecordFromIpHelper(ipHelper, adapter);
    if (!adapter.bindName.empty())
        FillAdapterRecordFromNdis(adapter);
    return adapter;
}
