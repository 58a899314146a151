// The devices of network adapters, which NDIS implements.
#pragma once

#include <memory>

namespace Simulator {

class FunctionSet;
class NetworkConfiguration;

/// Puts the devices under these functions; what is not theirs goes on to the real ones:
/// - CreateFileW of "\\.\" and an adapter's bindName, in any case. Handles are never used again.
/// - DeviceIoControl with IOCTL_NDIS_QUERY_GLOBAL_STATS for OID_802_3_CURRENT_ADDRESS, OID_GEN_MEDIA_CONNECT_STATUS and
///   OID_GEN_RCV_OK. ERROR_INSUFFICIENT_BUFFER, but of 8 bytes of the last the lower 4 are told; ERROR_NOT_SUPPORTED
///   for other objects, ERROR_GEN_FAILURE as the adapter has it, ERROR_DEVICE_REMOVED after it has vanished.
/// - CloseHandle.
void InstallAdapterDevices(FunctionSet &functions, const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
