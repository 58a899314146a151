// The owner of a text from COM.
#pragma once

#include <objbase.h>

#include "common/Unique.h"

using TaskText = Unique<wchar_t *, CoTaskMemFree>;
