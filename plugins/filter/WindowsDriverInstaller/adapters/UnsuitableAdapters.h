// Decides which adapters the filter driver must not be bound to.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <wx/string.h>

#include "TcpAdapter.h"

/// compat 100: only servers before version 6.2 are searched for adapters that share a MAC
bool MustUnbindDuplicates();

bool HasValidMac(const TcpAdapter &adapter);

/// Virtual adapters for remote access share a MAC address that contains their name.
bool IsRemoteAccess(const TcpAdapter &adapter);

/// Adapters by their MACs, in the order of the list.
using AdaptersByMac = std::map<std::string, std::vector<const TcpAdapter *>>;

AdaptersByMac GroupByMac(const TcpAdapterList &adapters);

/// The first other adapter with the same MAC; null if there is none.
const TcpAdapter *FindTwin(const AdaptersByMac &groups, const TcpAdapter &adapter);

wxString MacText(const std::string &mac);
