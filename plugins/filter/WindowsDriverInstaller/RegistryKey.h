// The owner of an open registry key.
#pragma once

#include <memory>
#include <type_traits>

#include <windows.h>

struct CloseRegistryKey {
    void operator()(HKEY key) const { (void)RegCloseKey(key); }
};
using RegistryKey = std::unique_ptr<std::remove_pointer_t<HKEY>, CloseRegistryKey>;
