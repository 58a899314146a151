// The system's ids of device classes; their header has no guard of its own.
#pragma once

#include <windows.h>
#include <devguid.h>
