// Whether there is a driver to ask.
#pragma once

#include "vti.h"

namespace Filter::Diagnostics {

/// Whether the driver answers.
bool IsDriverOpen(vti_handle_t *handle);

}  // namespace Filter::Diagnostics
