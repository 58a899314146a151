// Deletes a registry key with all below it.
#pragma once

#include <string>

/// Symbolic links in the tree are deleted and never followed: what they lead to stays. A key whose name has a zero in
/// it stays, with those that follow it and those above it.
/// @param keyPath  the key's path below HKEY_LOCAL_MACHINE. The keys above it must be writable by the system alone,
/// since
///                 links among them are followed.
/// @return 0 when the key is gone, also if it never was there, else 1. What could be deleted is gone then, too.
int DeleteRegistryTree(const std::wstring &keyPath);
