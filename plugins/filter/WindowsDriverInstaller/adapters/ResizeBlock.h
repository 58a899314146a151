// Blocks for the tables of IP Helper, whose sizes are only known once they were asked for.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "common/Block.h"

/// Changes the size of a block, which stays as it is without memory.
template <typename T>
bool ResizeBlock(Block<T> &block, std::size_t size) {
    void *const resized = std::realloc(block.get(), std::max<std::size_t>(size, 1));  // 0 would free it
    if (resized == nullptr)
        return false;
    (void)block.release();
    block.reset(static_cast<T *>(resized));
    return true;
}
