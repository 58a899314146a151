// Resizes the blocks for IP Helper's tables, whose sizes are known only after a first call.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdlib>

#include "common/Block.h"

/// Changes the size of a block. @return false if memory runs out; the block stays as it is then.
template <typename T>
bool ResizeBlock(Block<T> &block, std::size_t size) {
    void *const resized = std::realloc(block.get(), std::max<std::size_t>(size, 1));  // 0 would free it
    if (resized == nullptr)
        return false;
    (void)block.release();
    block.reset(static_cast<T *>(resized));
    return true;
}
