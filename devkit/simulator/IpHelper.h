// IP Helper: addresses of the adapters, and the ARP cache.
#pragma once

#include <memory>

namespace Simulator {

class FunctionSet;
class NetworkConfiguration;

/// Simulates these functions of iphlpapi.dll with the network. Failing calls do not change their output parameters,
/// except a required size.
/// - GetAdaptersInfo: ERROR_BUFFER_OVERFLOW, ERROR_NO_DATA without an adapter, ERROR_INVALID_PARAMETER.
/// - GetIpNetTable: ERROR_INSUFFICIENT_BUFFER, ERROR_NO_DATA without a row, ERROR_INVALID_PARAMETER.
/// - DeleteIpNetEntry: by index and address; ERROR_NOT_FOUND without such a row.
/// - SendARP: answered by a valid row of the cache, else by the gateway of a connected adapter, which adds a row to the
///   cache; else ERROR_BAD_NET_NAME. ERROR_BUFFER_OVERFLOW below 6 bytes, ERROR_INVALID_PARAMETER.
void InstallIpHelper(FunctionSet &functions, const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
