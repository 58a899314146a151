// The owner of a block of malloc.
#pragma once

#include <cstdlib>
#include <memory>

#include "Unique.h"

/// A record in a block of malloc or calloc.
template <typename Record>
using Block = std::unique_ptr<Record, UniqueDeleter<std::free>>;
