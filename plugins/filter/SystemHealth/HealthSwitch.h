// Whether the health subsystem is switched on.
#pragma once

#include <cstdint>

/// 1 once an iteration has ended otherwise than with actionDisabled. Under sysHealthLock.
extern std::int32_t sysHealthEnabled;
