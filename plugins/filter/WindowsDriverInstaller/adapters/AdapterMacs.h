// What the MACs of adapters tell: of a virtual one, or of one that is there twice.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <wx/string.h>

#include "TcpAdapter.h"

/// compat 100: only servers before version 6.2 are searched for adapters that share a MAC
bool MustUnbindDuplicateMacs();

bool HasValidMac(const TcpAdapter &adapter);

/// Virtual adapters for remote access share a MAC address that contains their name.
bool IsRemoteAccessMac(const TcpAdapter &adapter);

/// Adapters by their MACs, in the order of the list.
using AdaptersByMac = std::map<std::string, std::vector<const TcpAdapter *>>;

AdaptersByMac GroupAdaptersByMac(const TcpAdapterList &adapters);

/// The first other adapter with the same MAC; null if there is none.
const TcpAdapter *FindMacTwin(const AdaptersByMac &groups, const TcpAdapter &adapter);

wxString MacText(const std::string &mac);
