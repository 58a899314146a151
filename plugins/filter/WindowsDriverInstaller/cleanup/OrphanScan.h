// Looks for miniport devices of the filter driver that were left behind.
#pragma once

#include "vta_core.h"

/// The component id of the filter's miniports, which is in the instance ids of their devices, too.
constexpr wchar_t kMiniport[] = L"QBIMVTA_MP";

/// Failures of the system are reported to `dom`; a device that can't be read is passed over.
/// @return true when no such device is present, also when the devices can't be listed.
bool OrphanScanIsClean(VtaCore::CDom &dom);
