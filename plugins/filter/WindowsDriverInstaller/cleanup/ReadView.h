// Reads a mapped file whose pages may be unreadable.
#pragma once

#include <cstddef>
#include <span>

/// Calls read(context), which may read the view. A page that can't be read, such as one on a bad sector, raises an
/// exception there, which ends the call. No destructor runs then: what `read` calls must need none. Other exceptions
/// are not caught.
/// @return false if a page could not be read.
/// Any thread. Logs nothing.
bool ReadView(std::span<const std::byte> view, void (*read)(void *context), void *context);
