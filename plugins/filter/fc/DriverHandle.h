// Short-lived handles of the driver-interface library, and its words about failures.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include <wx/string.h>

#include "MessageText.h"
#include "vti.h"

/// Agent event of a failure of the driver-interface library.
constexpr int kDriverFailureEvent = 1001;

struct CloseDriverHandle {
    void operator()(vti_handle_t *handle) const { vti_close(handle); }
};
/// A handle from vti_open.
using DriverHandle = std::unique_ptr<vti_handle_t, CloseDriverHandle>;

struct FreeBlock {
    void operator()(void *block) const { std::free(block); }
};
/// A record in a block of malloc.
template <typename Record>
using Block = std::unique_ptr<Record, FreeBlock>;

/// The text of the handle's last failure, for a message.
/// @param size  bytes that the library is offered; a text that fills them has no end mark.
inline wxString DriverErrorText(vti_handle_t *handle, std::uint32_t size) {
    std::vector<char> text(size + 1);
    vti_get_error(handle, text.data(), size);
    return LibraryTextForMessage(text.data());
}
