// Memory for a Lua state that costs the same whatever the process heap looks like: free lists by size. The time that a
// heap needs for Lua's own blocks depends on what was freed before, which would favour or penalise the next job.
#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <vector>

class BlockPool {
public:
    /// A lua_Alloc; `pool` is the BlockPool.
    static void *Allocate(void *pool, void *block, std::size_t oldSize, std::size_t newSize);

private:
    static constexpr std::size_t kGrain = 16;
    static constexpr std::size_t kLargest = 4096;  ///< Larger blocks come from the heap.
    static constexpr std::size_t kChunk = 1024 * 1024;

    struct FreeBlock {
        FreeBlock *next;
    };
    void *Take(std::size_t size);
    void Give(void *block, std::size_t size);

    std::array<FreeBlock *, kLargest / kGrain + 1> m_free{};
    std::vector<std::unique_ptr<char[]>> m_chunks;
    std::size_t m_left = 0;  ///< Bytes unused at the end of the last chunk.
};
