// A network adapter of the simulated machine: what its component, IP Helper and its device report about it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>
#include <netcfgx.h>

namespace Simulator {

/// As a test defines it.
struct NetworkAdapter {
    std::wstring id;                            ///< Of its component, such as L"pci\\ven_8086&dev_100e".
    std::wstring bindName;                      ///< Such as L"{guid}"; its name for IP Helper, and its device's.
    std::wstring pnpDevNodeId;                  ///< Unique among adapters.
    std::optional<std::wstring> displayName{};  ///< Without one, GetDisplayName fails with E_FAIL.
    DWORD characteristics = NCF_PHYSICAL;
    ULONG deviceStatus = 0;
    HRESULT deviceStatusResult = S_OK;  ///< The result of GetDeviceStatus.

    bool inIpHelper = true;
    DWORD index = 0;             ///< 0: PutAdapter sets a unique one.
    std::vector<BYTE> mac{};     ///< IP Helper reports the first 8 bytes, the device all.
    std::string ip = "0.0.0.0";  ///< This means none, as for the gateway.
    std::string gateway = "0.0.0.0";
    std::vector<BYTE> gatewayMac{2, 0, 0, 0, 0, 1};  ///< The gateway's answer to ARP; none if it is empty.

    DWORD openError = ERROR_SUCCESS;        ///< The error of opening the device.
    std::optional<DWORD> mediaStatus{0};    ///< 0 connected, 1 disconnected; if empty, the query fails.
    std::optional<std::uint64_t> frames{};  ///< Received; if empty, the query fails.
    DWORD framesSize = 8;                   ///< The width in which they are reported: 8 or 4 bytes.
};

}  // namespace Simulator
