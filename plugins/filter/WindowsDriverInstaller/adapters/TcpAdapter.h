// The state of a network adapter.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include <wx/string.h>

/// No address, as inet_addr reports it.
constexpr std::uint32_t kNoAddress = 0xFFFFFFFF;
/// An adapter that can't be queried counts as not connected.
constexpr std::uint32_t kMediaUnknown = 0xFFFFFFFF;
constexpr std::uint32_t kMediaConnected = 0;  ///< NdisMediaStateConnected

struct TcpAdapter {
    bool boundToIp = false;      ///< ms_tcpip or ms_tcpip6 is bound to it.
    bool boundToFilter = false;  ///< qbimvta is bound to it.
    wxString bindName;           ///< Its name in IP Helper, too, and that of its device.
    std::uint32_t ipAddress = kNoAddress;
    std::uint32_t gatewayAddress = kNoAddress;
    std::uint32_t characteristics = 0;  ///< NCF_VIRTUAL and its like.
    wxString componentId;
    std::uint32_t deviceStatus = 0;
    std::string macAddress;  ///< Raw, of the length as reported.
    wxString pnpDevNodeId;
    wxString displayName;
    std::uint32_t adapterIndex = 0;
    std::uint32_t mediaConnectStatus = kMediaUnknown;
    std::uint64_t framesReceived = 0;
};

/// In enumeration order.
using TcpAdapterList = std::list<TcpAdapter>;
