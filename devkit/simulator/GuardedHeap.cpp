#include "GuardedHeap.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <io.h>

#include "CallScope.h"

namespace Simulator {

namespace {

constexpr std::size_t kArena = std::size_t{256} << 20;
constexpr unsigned char kFresh = 0xA5;
constexpr unsigned char kSlack = 0xFB;

std::size_t RoundUp(std::size_t value, std::size_t to) {
    return (value + to - 1) / to * to;
}

char *RoundDown(char *address, std::size_t to) {
    return address - reinterpret_cast<std::uintptr_t>(address) % to;
}

[[noreturn]] void EndProcess(unsigned code, const char *what, std::size_t number, const char *hint) {
    std::array<char, 256> text{};
    const int length = std::snprintf(text.data(), text.size(), "guarded heap: %s %zu%s\n", what, number, hint);
    if (length > 0)
        (void)_write(2, text.data(), static_cast<unsigned>(length));
    TerminateProcess(GetCurrentProcess(), code);
    std::abort();
}

}  // namespace

void GuardedHeap::Use(const Options &options) {
    const LockGuard guard(m_lock);
    m_options = options;
}

char *GuardedHeap::TakePages(std::size_t bytes) {
    const LockGuard guard(m_lock);
    if (bytes > static_cast<std::size_t>(m_end - m_next)) {
        const std::size_t arena = std::min(RoundUp(bytes, kArena), std::max(bytes, m_options.addressSpaceBytes));
        if (arena > m_options.addressSpaceBytes - std::min(m_reserved, m_options.addressSpaceBytes))
            EndProcess(kUsedUp, "used up its address space, bytes:", m_options.addressSpaceBytes,
                       "; guard a shorter stretch or raise Options::addressSpaceBytes");
        m_next = static_cast<char *>(VirtualAlloc(nullptr, arena, MEM_RESERVE, PAGE_NOACCESS));
        m_end = m_next == nullptr ? nullptr : m_next + arena;
        if (m_next == nullptr)
            return nullptr;
        m_reserved += arena;
    }
    char *pages = m_next;
    m_next += bytes;
    return pages;
}

void *GuardedHeap::Allocate(std::size_t size, std::size_t alignment) {
    const InsideSimulator inside;
    if (size > SIZE_MAX / 2)
        return nullptr;
    const std::size_t open = RoundUp(std::max<std::size_t>(size, 1), kPage);
    char *pages = TakePages(open + kPage);
    if (pages == nullptr || VirtualAlloc(pages, open, MEM_COMMIT, PAGE_READWRITE) == nullptr) {
        if (size <= kLargestSure)
            EndProcess(kUsedUp, "the system has no more pages; blocks alive:", m_alive,
                       "; guard a shorter stretch, or under Wine raise vm.max_map_count");
        return nullptr;
    }
    ++m_alive;
    char *end = pages + open;
    char *block = RoundDown(end - size, alignment == 0 ? m_options.alignment : alignment);
    std::memset(block, kFresh, size);
    std::memset(block + size, kSlack, static_cast<std::size_t>(end - block) - size);
    return block;
}

void GuardedHeap::Free(void *block, std::size_t size) {
    const InsideSimulator inside;
    char *begin = static_cast<char *>(block);
    char *pages = size == 0 ? RoundDown(begin - 1, kPage) : RoundDown(begin, kPage);
    char *end = pages + RoundUp(std::max<std::size_t>(size, 1), kPage);
    const auto changed = [](char c) { return static_cast<unsigned char>(c) != kSlack; };
    if (std::any_of(begin + size, end, changed))
        EndProcess(kDamaged, "something wrote beyond the end of a block; its bytes:", size, "");
    --m_alive;
    VirtualFree(pages, static_cast<std::size_t>(end - pages), MEM_DECOMMIT);
}

}  // namespace Simulator
