#include "BlockPool.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

void *BlockPool::Take(std::size_t size) {
    if (size > kLargest)
        return std::malloc(size);
    const std::size_t grains = (size + kGrain - 1) / kGrain;
    if (FreeBlock *const block = m_free[grains]) {
        m_free[grains] = block->next;
        return block;
    }
    const std::size_t bytes = grains * kGrain;
    if (bytes > m_left) {
        m_chunks.push_back(std::make_unique<char[]>(kChunk));
        m_left = kChunk;
    }
    void *const block = m_chunks.back().get() + (kChunk - m_left);
    m_left -= bytes;
    return block;
}

void BlockPool::Give(void *block, std::size_t size) {
    if (size > kLargest) {
        std::free(block);
        return;
    }
    auto *const freed = static_cast<FreeBlock *>(block);
    FreeBlock *&list = m_free[(size + kGrain - 1) / kGrain];
    freed->next = list;
    list = freed;
}

void *BlockPool::Allocate(void *pool, void *block, std::size_t oldSize, std::size_t newSize) {
    auto &self = *static_cast<BlockPool *>(pool);
    void *const made = newSize != 0 ? self.Take(newSize) : nullptr;
    if (block) {
        if (made)
            std::memcpy(made, block, std::min(oldSize, newSize));
        if (made || newSize == 0)
            self.Give(block, oldSize);
    }
    return made;
}
