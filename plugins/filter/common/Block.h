// Owns a block from malloc.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <memory>

#include "Unique.h"

/// A record in a block of malloc or calloc.
template <typename Record>
using Block = std::unique_ptr<Record, UniqueDeleter<std::free>>;

/// A block for an answer of the driver: zeros, since it may fill in less than it claims. Those of calloc cost nothing
/// until they are used.
/// @return null if memory runs out.
template <typename Record>
Block<Record> MakeZeroedBlock(std::size_t bytes) {
    return Block<Record>(static_cast<Record *>(std::calloc(1, bytes)));
}
