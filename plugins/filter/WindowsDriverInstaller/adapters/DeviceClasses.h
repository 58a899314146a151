// The ids of device classes. The system's header has no include guard.
#pragma once

#include <windows.h>
#include <devguid.h>
