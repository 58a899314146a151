#pragma once

#include <windows.h>

/// This library, used to load its message texts. The entry routine sets it.
extern HINSTANCE moduleInstance;
