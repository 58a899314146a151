#include "AdapterMacs.h"

#include <algorithm>
#include <cstddef>

#include <windows.h>
#include <netcfgx.h>

#include "vta_core.h"

bool MustUnbindDuplicateMacs() {
    OSVERSIONINFOEXW wanted = {};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.wProductType = VER_NT_WORKSTATION;
    if (VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != 0)
        return false;
    wanted.dwMajorVersion = 6;
    wanted.dwMinorVersion = 2;
    DWORDLONG conditions = VerSetConditionMask(0, VER_MAJORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_MINORVERSION, VER_GREATER_EQUAL);
    conditions = VerSetConditionMask(conditions, VER_SERVICEPACKMAJOR, VER_GREATER_EQUAL);
    return VerifyVersionInfoW(&wanted, VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR, conditions) == 0;
}

bool HasValidMac(const TcpAdapter &adapter) {
    constexpr std::size_t shortest = 6;
    return adapter.macAddress.size() >= shortest &&
           adapter.macAddress.find_first_not_of('\0') != adapter.macAddress.npos;
}

bool IsRemoteAccessMac(const TcpAdapter &adapter) {
    return (adapter.characteristics & NCF_VIRTUAL) != 0 && adapter.macAddress.compare(2, 4, " RAS") == 0;
}

AdaptersByMac GroupAdaptersByMac(const TcpAdapterList &adapters) {
    AdaptersByMac groups;
    for (const TcpAdapter &adapter : adapters)
        groups[adapter.macAddress].push_back(&adapter);
    return groups;
}

const TcpAdapter *FindMacTwin(const AdaptersByMac &groups, const TcpAdapter &adapter) {
    const std::vector<const TcpAdapter *> &group = groups.at(adapter.macAddress);
    const auto twin = std::find_if(group.begin(), group.end(), [&adapter](const TcpAdapter *other) {
        return other->pnpDevNodeId != adapter.pnpDevNodeId;
    });
    return twin == group.end() ? nullptr : *twin;
}

wxString MacText(const std::string &mac) {
    return VtaCore::toHexString(mac.data(), mac.size());
}
