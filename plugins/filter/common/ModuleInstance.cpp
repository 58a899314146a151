#include "ModuleInstance.h"

HINSTANCE moduleInstance = nullptr;
