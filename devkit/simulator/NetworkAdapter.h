// A network adapter of the simulated machine: what its component, IP Helper and its device tell of it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>
#include <netcfgx.h>

namespace Simulator {

/// As a test makes it.
struct NetworkAdapter {
    std::wstring id;                            ///< Of its component, such as L"pci\\ven_8086&dev_100e".
    std::wstring bindName;                      ///< Such as L"{guid}"; names it for IP Helper, and its device.
    std::wstring pnpDevNodeId;                  ///< That of no other adapter.
    std::optional<std::wstring> displayName{};  ///< Without one, GetDisplayName fails with E_FAIL.
    DWORD characteristics = NCF_PHYSICAL;
    ULONG deviceStatus = 0;
    HRESULT deviceStatusResult = S_OK;  ///< What GetDeviceStatus answers.

    bool inIpHelper = true;
    DWORD index = 0;             ///< 0: one that no other has is set by PutAdapter.
    std::vector<BYTE> mac{};     ///< IP Helper tells the first 8 bytes, the device all.
    std::string ip = "0.0.0.0";  ///< That for none, as is it for the gateway.
    std::string gateway = "0.0.0.0";
    std::vector<BYTE> gatewayMac{2, 0, 0, 0, 0, 1};  ///< What the gateway answers to ARP; nothing if it is empty.

    DWORD openError = ERROR_SUCCESS;        ///< What opening the device fails with.
    std::optional<DWORD> mediaStatus{0};    ///< 0 connected, 1 disconnected; without one, the query fails.
    std::optional<std::uint64_t> frames{};  ///< Received; without a number, the query fails.
    DWORD framesSize = 8;                   ///< In how many bytes they are told: 8 or 4.
};

}  // namespace Simulator
