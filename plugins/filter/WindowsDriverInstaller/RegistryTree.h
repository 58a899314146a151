// Deletes a registry key with all below it.
#pragma once

#include <string>

/// @param keyPath  the key's path below HKEY_LOCAL_MACHINE, which the function writes on as it goes down; on return it
///                 is as it was.
/// @return 0 when the key is gone, also if it never was there, else 1. What could be deleted is gone then, too.
int DeleteRegistryTree(std::wstring &keyPath);
