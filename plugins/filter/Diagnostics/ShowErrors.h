// Reports what the driver refuses.
#pragma once

#include <cstdint>

#include "vta_core.h"
#include "vti.h"

namespace Filter::Diagnostics {

/// Reports a status that is no success as agent event 1001, with the text of the handle's last failure.
/// @param label  what was asked.
/// @return whether it is a success.
bool ShowErrors(VtaCore::CDom &dom, vti_handle_t *handle, const wchar_t *label, std::int32_t status);

}  // namespace Filter::Diagnostics
