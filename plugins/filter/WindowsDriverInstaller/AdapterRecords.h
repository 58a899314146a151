// Reads the network adapters into records. Only WindowsDriverInstaller.cpp includes this.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <type_traits>

#include <windows.h>
#include <ntddndis.h>
#include <wx/utils.h>

#include "DeviceClasses.h"
#include "DriverInstallerThread.h"
#include "DriverThreadNetCfg.h"

// NOLINTBEGIN(misc-definitions-in-headers): the definitions are that one file's
namespace {

struct CloseDevice {
    void operator()(HANDLE handle) const { (void)CloseHandle(handle); }
};
using NdisDevice = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseDevice>;

/// Changes the size of a block, which stays as it is without memory.
template <typename T>
bool Resize(Block<T> &block, std::size_t size) {
    void *const resized = std::realloc(block.get(), std::max<std::size_t>(size, 1));  // 0 would free it
    if (resized == nullptr)
        return false;
    (void)block.release();
    block.reset(static_cast<T *>(resized));
    return true;
}

struct LessWithoutCase {
    bool operator()(const wxString &a, const wxString &b) const { return a.CmpNoCase(b) < 0; }
};

using TaskText = std::unique_ptr<wchar_t, FreeTaskMemory>;

/// A text that a component hands out, such as its display name. @return false where it has none.
bool ReadText(INetCfgComponent *component, HRESULT (STDMETHODCALLTYPE INetCfgComponent::*read)(LPWSTR *),
              wxString &text) {
    wchar_t *given = nullptr;
    const HRESULT hr = (component->*read)(&given);
    const TaskText owner(given);
    if (FAILED(hr) || !owner)
        return false;
    text = owner.get();
    return true;
}

/// What binds to adapters, as far as it is there.
class Bindings {
public:
    Bindings(INetCfg *netCfg, const wchar_t *componentId) {
        if (netCfg->FindComponent(componentId, &m_component) != S_OK || !m_component)
            return;
        (void)m_component->QueryInterface(IID_INetCfgComponentBindings, &m_bindings);
    }

    [[nodiscard]] bool AreTo(INetCfgComponent *adapter) const {
        return m_bindings && m_bindings->IsBoundTo(adapter) == S_OK;
    }

private:
    ComPtr<INetCfgComponent> m_component;
    ComPtr<INetCfgComponentBindings> m_bindings;
};

std::uint32_t AddressFrom(const IP_ADDR_STRING &entry) {
    const std::uint32_t address = inet_addr(entry.IpAddress.String);
    return address == 0 ? kNoAddress : address;
}

/// The records of IP Helper by the names of their adapters, which know no case; of several the first counts.
class IpHelperByName {
public:
    /// @param record  the first of a chain, which has to stay; may be null.
    explicit IpHelperByName(const IP_ADAPTER_INFO *record) {
        for (; record != nullptr; record = record->Next)
            (void)m_records.emplace(record->AdapterName, record);
    }

    /// @return null if there is none.
    [[nodiscard]] const IP_ADAPTER_INFO *Find(const wxString &bindName) const {
        const auto found = m_records.find(bindName);
        return found == m_records.end() ? nullptr : found->second;
    }

private:
    std::map<wxString, const IP_ADAPTER_INFO *, LessWithoutCase> m_records;
};

void TakeIpHelperFields(const IpHelperByName &records, TcpAdapter &adapter) {
    const IP_ADAPTER_INFO *const record = records.Find(adapter.bindName);
    if (record == nullptr)
        return;
    adapter.adapterIndex = record->Index;
    const std::size_t length = std::min<std::size_t>(record->AddressLength, sizeof(record->Address));
    adapter.macAddress.assign(reinterpret_cast<const char *>(record->Address), length);
    adapter.gatewayAddress = AddressFrom(record->GatewayList);
    adapter.ipAddress = AddressFrom(record->IpAddressList);
}

/// @return the number of bytes that the driver answered; nothing on failure.
std::optional<DWORD> QueryNdis(const NdisDevice &device, ULONG id, void *answer, DWORD size) {
    DWORD length = 0;
    const BOOL answered =
        DeviceIoControl(device.get(), IOCTL_NDIS_QUERY_GLOBAL_STATS, &id, sizeof(id), answer, size, &length, nullptr);
    return answered != 0 ? std::optional(std::min(length, size)) : std::nullopt;
}

std::uint64_t ReadFramesReceived(const NdisDevice &device) {
    int major = 0;
    int minor = 0;
    (void)wxGetOsVersion(&major, &minor);
    std::uint64_t frames = 0;
    if ((major > 5 || (major == 5 && minor >= 1)) &&
        QueryNdis(device, OID_GEN_RCV_OK, &frames, sizeof(frames)) == sizeof(frames))
        return frames;
    std::uint32_t fewer = 0;
    return QueryNdis(device, OID_GEN_RCV_OK, &fewer, sizeof(fewer)) == sizeof(fewer) ? fewer : 0;
}

void TakeNdisFields(TcpAdapter &adapter) {
    const wxString path = "\\\\.\\" + adapter.bindName;
    const HANDLE opened = CreateFileW(path.wc_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
        return;
    const NdisDevice device(opened);
    if (adapter.macAddress.empty()) {
        std::array<char, 16> address{};
        const auto length = QueryNdis(device, OID_802_3_CURRENT_ADDRESS, address.data(), sizeof(address));
        adapter.macAddress.assign(address.data(), length.value_or(0));
    }
    std::uint32_t status = kMediaUnknown;
    if (QueryNdis(device, OID_GEN_MEDIA_CONNECT_STATUS, &status, sizeof(status)))
        adapter.mediaConnectStatus = status;
    adapter.framesReceived = ReadFramesReceived(device);
}

/// @return the record without its bindings; nothing for a component that is no adapter.
std::optional<TcpAdapter> ReadAdapter(INetCfgComponent *component, const IpHelperByName &ipHelper) {
    TcpAdapter adapter;
    DWORD characteristics = 0;
    (void)component->GetCharacteristics(&characteristics);
    if ((characteristics & (NCF_VIRTUAL | NCF_PHYSICAL)) == 0)
        return std::nullopt;
    adapter.characteristics = characteristics;
    (void)ReadText(component, &INetCfgComponent::GetBindName, adapter.bindName);
    ULONG deviceStatus = 0;
    if (SUCCEEDED(component->GetDeviceStatus(&deviceStatus)))
        adapter.deviceStatus = deviceStatus;
    (void)ReadText(component, &INetCfgComponent::GetPnpDevNodeId, adapter.pnpDevNodeId);
    (void)ReadText(component, &INetCfgComponent::GetId, adapter.componentId);
    if (!ReadText(component, &INetCfgComponent::GetDisplayName, adapter.displayName))
        adapter.displayName = adapter.pnpDevNodeId;
    TakeIpHelperFields(ipHelper, adapter);
    if (!adapter.bindName.empty())
        TakeNdisFields(adapter);
    return adapter;
}

void CDriverInstallerThread::GetTcpAdapters(TcpAdapterList &adapters) {
    StartStep(GettingAdapterInfo, 10);
    INetCfg *netCfg = nullptr;
    IpHelperRecords ipHelper;
    if (SUCCEEDED(AcquireINetCfg(false, &netCfg)) && ReadIpHelper(ipHelper)) {
        ReadAdapters(netCfg, ipHelper.get(), adapters);
        (void)ReleaseINetCfg(false, netCfg);
    } else {
        NoteFailedStep();  // compat 96: leaves an open configuration unreleased
    }
    EndStep(GettingAdapterInfo);
}

/// Without the records the adapters have no addresses.
/// @param records  null when the system doesn't tell.
/// @return false without memory.
bool CDriverInstallerThread::ReadIpHelper(IpHelperRecords &records) {
    ULONG size = 11'264;
    if (!Resize(records, size)) {
        wxLogError("GetInterfaces() - error allocating memory.");
        return false;
    }
    ULONG error = GetAdaptersInfo(records.get(), &size);
    if (error == ERROR_BUFFER_OVERFLOW) {
        if (Resize(records, size))
            error = GetAdaptersInfo(records.get(), &size);
        else
            wxLogError("GetInterfaces() - error allocating memory.");
    }
    if (error != ERROR_SUCCESS) {
        ReportFailure(error, L"GetAdaptersInfo()");
        records.reset();
    }
    return true;
}

void CDriverInstallerThread::ReadAdapters(INetCfg *netCfg, const IP_ADAPTER_INFO *ipHelper, TcpAdapterList &adapters) {
    const Bindings ip(netCfg, L"ms_tcpip");
    const Bindings ip6(netCfg, L"ms_tcpip6");
    const Bindings filter(netCfg, kFilterComponent);
    ComPtr<IEnumNetCfgComponent> components;
    if (FAILED(netCfg->EnumComponents(&GUID_DEVCLASS_NET, &components)) || !components)
        return;
    const IpHelperByName recordsByName(ipHelper);
    ComPtr<INetCfgComponent> component;
    while (components->Next(1, &component, nullptr) == S_OK && component) {
        if (std::optional<TcpAdapter> adapter = ReadAdapter(component.Get(), recordsByName)) {
            adapter->boundToIp = ip.AreTo(component.Get()) || ip6.AreTo(component.Get());
            adapter->boundToFilter = filter.AreTo(component.Get());
            adapters.push_back(*std::move(adapter));
        }
        component.Reset();
    }
}

}  // namespace
// NOLINTEND(misc-definitions-in-headers)
