// The devices of network adapters, which NDIS implements.
#pragma once

#include <memory>

namespace Simulator {

class FunctionSet;
class NetworkConfiguration;

/// Simulates these functions for the devices; other calls go to the real ones:
/// - CreateFileW of "\\.\" and an adapter's bindName, case-insensitive. Handles are never reused.
/// - DeviceIoControl with IOCTL_NDIS_QUERY_GLOBAL_STATS for OID_802_3_CURRENT_ADDRESS, OID_GEN_MEDIA_CONNECT_STATUS and
///   OID_GEN_RCV_OK. ERROR_INSUFFICIENT_BUFFER, except that 4 bytes receive the lower half of an 8-byte OID_GEN_RCV_OK;
///   ERROR_NOT_SUPPORTED for other objects, ERROR_GEN_FAILURE if the adapter says so, ERROR_DEVICE_REMOVED after it has
///   vanished.
/// - CloseHandle.
void InstallAdapterDevices(FunctionSet &functions, const std::shared_ptr<NetworkConfiguration> &network);

}  // namespace Simulator
