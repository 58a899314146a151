// The owner of a handle of the driver library.
#pragma once

#include "Unique.h"
#include "vti.h"

/// A handle from vti_open.
using DriverHandle = Unique<vti_handle_t *, vti_close>;
