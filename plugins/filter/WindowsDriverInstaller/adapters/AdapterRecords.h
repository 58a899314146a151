// Reads the records of network adapters.
#pragma once

#include <optional>

#include <windows.h>
#include <netcfgx.h>

#include "IpHelperByName.h"
#include "TcpAdapter.h"

/// Reads everything but the bindings. @return nothing for a component that is not an adapter.
std::optional<TcpAdapter> ReadAdapterRecord(INetCfgComponent *component, const IpHelperByName &ipHelper);
