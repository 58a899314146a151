// The owner of a JSON value with all that is in it.
#pragma once

#include <cJSON.h>

#include "common/Unique.h"

using Json = Unique<cJSON *, cJSON_Delete>;
