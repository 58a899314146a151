// An open file of the C runtime, which closes itself.
#pragma once

#include <cstdio>

#include "common/Unique.h"

using FileHandle = Unique<std::FILE *, std::fclose>;
