// Memory blocks that fault when a program accesses them beyond their end or after it freed them.
#pragma once

#include <atomic>
#include <cstddef>

#include "Lock.h"

namespace Simulator {

/// Each block ends at the end of a page, and the page after it is inaccessible. Freed pages stay inaccessible for good:
/// their memory is released, their addresses are never reused. Any thread.
///
/// Up to alignment - 1 bytes lie between a block and the inaccessible page. They are filled with a pattern that is
/// checked when the block is freed; if it was changed the process ends with a message and kDamaged.
class GuardedHeap {
public:
    struct Options {
        /// A power of two up to the page size. 1 puts every block right before its inaccessible page, which code
        /// compiled for malloc's alignment may not tolerate.
        std::size_t alignment = 16;
        /// When all of these addresses are used, including freed ones, the process ends with a message and kUsedUp. A
        /// block needs its pages and one more. Under Wine the kernel's vm.max_map_count is another limit: half as many
        /// blocks (commonly 32,700) can exist at a time; beyond it the process ends likewise.
        std::size_t addressSpaceBytes = std::size_t{16} << 30;
    };
    static constexpr unsigned kDamaged = 101;
    static constexpr unsigned kUsedUp = 102;

    /// For blocks allocated from now on.
    void Use(const Options &options);

    /// @param alignment  0 for that of the options.
    /// @return filled with a pattern; null for more than kLargestSure bytes if the system does not have them.
    [[nodiscard]] void *Allocate(std::size_t size, std::size_t alignment);
    /// @param size  as it was allocated.
    void Free(void *block, std::size_t size);

    static constexpr std::size_t kPage = 4096;
    static constexpr std::size_t kLargestSure = std::size_t{16} << 20;

private:
    [[nodiscard]] char *TakePages(std::size_t bytes);

    Lock m_lock;
    Options m_options;
    char *m_next = nullptr;
    char *m_end = nullptr;
    std::size_t m_reserved = 0;
    std::atomic<std::size_t> m_alive{0};
};

}  // namespace Simulator
