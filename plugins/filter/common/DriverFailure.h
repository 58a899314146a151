// What the module says about failures of the driver-interface library.
#pragma once

#include <cstdint>
#include <vector>

#include <wx/string.h>

#include "MessageText.h"
#include "vti.h"

/// Agent event of a failure of the driver-interface library.
constexpr int kDriverFailureEvent = 1001;

/// The text of the handle's last failure, for a message.
/// @param size  bytes that the library is offered; a text that fills them has no end mark.
inline wxString DriverFailureText(vti_handle_t *handle, std::uint32_t size) {
    std::vector<char> text(size + 1);
    vti_get_error(handle, text.data(), size);
    return LibraryTextForMessage(text.data());
}
