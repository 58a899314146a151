// Searches for orphaned miniport devices of the filter driver.
#pragma once

#include "vta_core.h"

/// The component id of the filter's miniports. The instance ids of their devices contain it.
constexpr wchar_t kMiniport[] = L"QBIMVTA_MP";

/// Reports failures of the system to `dom`. A device that can't be read is skipped.
/// @return true when no such device is present, also when the devices can't be listed.
bool OrphanScanIsClean(VtaCore::CDom &dom);
