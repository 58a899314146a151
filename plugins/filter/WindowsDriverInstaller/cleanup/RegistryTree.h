// Deletes a registry key and everything below it.
#pragma once

#include <string>

/// Deletes symbolic links in the tree and never follows them. A key whose name contains a zero stays, with the keys
/// after it and above it.
/// @param keyPath  path below HKEY_LOCAL_MACHINE. Links among the keys above it are followed, so only the system may
///                 have write access to those.
/// @return 0 if the key is gone or never existed, else 1; then what could be deleted is gone, too.
int DeleteRegistryTree(const std::wstring &keyPath);
