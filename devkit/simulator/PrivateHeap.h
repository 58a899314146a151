// Memory for the simulator's own records, from a separate heap that no redirected function uses.
#pragma once

#include <cstddef>
#include <new>

namespace Simulator {

/// Null if there is no more memory.
[[nodiscard]] void *PrivateAllocate(std::size_t size);
void PrivateFree(void *block);

/// For containers that are used within the replacements of malloc and free.
template <class T>
struct PrivateAllocator {
    using value_type = T;
    PrivateAllocator() = default;
    template <class U>
    PrivateAllocator(const PrivateAllocator<U> &) {}
    T *allocate(std::size_t count) {
        void *block = PrivateAllocate(count * sizeof(T));  // NOLINT(bugprone-sizeof-expression): T may be a pointer
        if (block == nullptr)
            throw std::bad_alloc();
        return static_cast<T *>(block);
    }
    void deallocate(T *block, std::size_t) { PrivateFree(block); }
    template <class U>
    bool operator==(const PrivateAllocator<U> &) const {
        return true;
    }
};

}  // namespace Simulator
