// What watched modules have created and not released: the kinds below, and those of the models.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <windows.h>

#include "CallScope.h"
#include "GuardedHeap.h"
#include "Lock.h"
#include "PrivateHeap.h"

namespace Simulator {

class FunctionSet;

/// The kinds that the balance counts itself. A model may count others under its own names.
namespace Kind {
inline constexpr char kBlock[] = "block";
inline constexpr char kHandle[] = "handle";
inline constexpr char kKey[] = "key";
inline constexpr char kLibrary[] = "library";
inline constexpr char kFind[] = "find handle";
inline constexpr char kFile[] = "file";
inline constexpr char kQuery[] = "performance query";
inline constexpr char kService[] = "service handle";
inline constexpr char kView[] = "view";
inline constexpr char kSid[] = "sid";
inline constexpr char kLocalMemory[] = "local memory";
}  // namespace Kind

/// One existing resource.
struct BalanceItem {
    const char *kind = "";
    std::uintptr_t value = 0;    ///< The address, handle or key.
    std::size_t size = 0;        ///< Bytes, of a block.
    std::uint64_t sequence = 0;  ///< Its number among all that were created.
    const char *function = "";   ///< The function that created it.
    const void *caller = nullptr;
    DWORD thread = 0;
};

struct BalanceSnapshot {
    std::size_t blocks = 0;
    std::size_t bytes = 0;
    std::size_t peakBytes = 0;       ///< The most since recording began, or since ResetPeak.
    std::uint64_t sequence = 0;      ///< That of the next resource.
    std::vector<BalanceItem> items;  ///< All existing resources by sequence, including blocks.

    [[nodiscard]] std::size_t Count(std::string_view kind) const;
};

/// A planned failure of an allocation. Any thread.
class AllocationFault {
public:
    [[nodiscard]] bool Hit() const { return m_hit; }

private:
    friend class Balance;
    unsigned m_nth = 0;
    unsigned m_seen = 0;
    HMODULE m_module = nullptr;
    DWORD m_thread = 0;
    bool m_newToo = true;
    std::atomic<bool> m_hit{false};
};
using AllocationFaultHandle = std::shared_ptr<AllocationFault>;

/// There is one, since the replacements of malloc and free have no object; it lasts as long as the process. It counts
/// only what modules do that the functions of InstallBalance are attached to: a block that a watched module frees but
/// that was allocated elsewhere goes to the real function. Watch all modules that allocate for one another: the module
/// under test, the libraries that share the C runtime with it, the program itself. Any thread.
class Balance {
public:
    [[nodiscard]] static Balance &Instance();

    /// Forgets everything except guarded blocks, and records from now on.
    void Start();
    /// Stops recording. Guarded blocks can still be freed.
    void Stop();

    [[nodiscard]] BalanceSnapshot Take() const;
    void ResetPeak();
    /// What was created after `before` and exists in `after`.
    [[nodiscard]] static std::vector<BalanceItem> Left(const BalanceSnapshot &before, const BalanceSnapshot &after);
    /// A line for each resource that is left, and for each earlier one that was released; empty if neither.
    [[nodiscard]] std::string Difference(const BalanceSnapshot &before, const BalanceSnapshot &after) const;

    /// Makes the n-th allocation from now on fail, n from 1: null, errno ENOMEM, or std::bad_alloc from operator new.
    /// @param module  counts only those that this watched module itself requests, from the C runtime or (MinGW)
    ///   operator new; null for all.
    /// @param thread  counts only those of this thread; 0 for all.
    /// @param newToo  counts those by operator new, too.
    AllocationFaultHandle FailAllocation(unsigned nth, HMODULE module = nullptr, DWORD thread = 0, bool newToo = true);
    void CancelAllocationFaults();

    /// Allocates new blocks of the C runtime's heap on the guarded heap.
    void Guard(const GuardedHeap::Options &options);
    /// Allocates new blocks normally again. Guarded ones stay guarded until they are freed.
    void StopGuarding();
    [[nodiscard]] std::size_t GuardedBlocks() const;

    /// For models: counts a resource that a call has created, or released.
    /// @param kind      and @param function  stay valid for the life of the process.
    void Opened(const char *kind, std::uintptr_t value, const char *function);
    /// @return false if it is unknown.
    bool Closed(const char *kind, std::uintptr_t value);

    /// Names the module in differences even after it was unloaded.
    void Remember(HMODULE module);

    // For the replacements of the memory functions.
    static constexpr char kOperatorNew[] = "operator new";
    struct Request {
        const char *function;
        std::size_t size;
        const void *caller;
        std::size_t alignment = 0;  ///< 0 for that of malloc.
        bool guardable = true;
    };
    /// @param real  allocates the block on the real heap.
    template <class Real>
    void *Allocate(const Request &request, Real real) {
        if (!m_recording || InsideSimulator::Here())
            return real();
        if (FailsByPlan(request))
            return nullptr;
        const bool guarded = m_guarding && request.guardable && request.alignment <= GuardedHeap::kPage;
        void *block = guarded ? m_guarded.Allocate(request.size, request.alignment) : real();
        if (block != nullptr)
            Record(block, request, guarded);
        return block;
    }
    /// @param real  frees an unguarded block.
    template <class Real>
    void Free(void *block, Real real) {
        Block known;
        if (block != nullptr && Forget(block, known) && known.guarded)
            m_guarded.Free(block, known.size);
        else
            real(block);
    }
    /// @param real  changes the size of an unguarded block, and @param make  allocates one, both on the real heap.
    /// @param end   frees one there.
    template <class Real, class Make, class End>
    void *Reallocate(void *block, const Request &request, Real real, Make make, End end) {
        Block known;
        if (block == nullptr)
            return Allocate(request, make);
        if (!Find(block, known))
            return real();
        if (known.guarded || (m_guarding && request.guardable))
            return Move(block, known.size, request, make, end);
        if (!InsideSimulator::Here() && FailsByPlan(request))
            return nullptr;
        Forget(block, known);
        void *moved = real();
        if (moved != nullptr)
            Record(moved, request, false);
        else if (request.size != 0)
            Restore(block, known);
        return moved;
    }
    /// The size of a guarded block.
    [[nodiscard]] bool GuardedSize(void *block, std::size_t &size) const;

private:
    struct Block {
        std::size_t size = 0;
        std::uint64_t sequence = 0;
        const char *function = "";
        const void *caller = nullptr;
        DWORD thread = 0;
        bool guarded = false;
    };
    struct Module {
        std::uintptr_t base;
        std::size_t size;
        std::string name;
    };
    template <class K, class V>
    using PrivatePair = PrivateAllocator<std::pair<const K, V>>;
    using Blocks = std::unordered_map<void *, Block, std::hash<void *>, std::equal_to<>, PrivatePair<void *, Block>>;
    using AllocationFaults = std::vector<AllocationFaultHandle, PrivateAllocator<AllocationFaultHandle>>;
    using ItemKey = std::pair<std::string_view, std::uintptr_t>;
    using Items = std::multimap<ItemKey, BalanceItem, std::less<>, PrivatePair<ItemKey, BalanceItem>>;

    Balance() = default;
    [[nodiscard]] bool FailsByPlan(const Request &request);
    void Record(void *block, const Request &request, bool guarded);
    void Restore(void *block, const Block &known);
    void InsertLocked(void *block, const Block &known);
    bool Forget(void *block, Block &known);
    void ForgetLocked(Blocks::iterator place);
    bool Find(void *block, Block &known) const;
    [[nodiscard]] std::string Line(char sign, const BalanceItem &item) const;
    [[nodiscard]] std::string Place(const void *caller) const;

    template <class Make, class End>
    void *Move(void *block, std::size_t oldSize, const Request &request, Make make, End end) {
        void *moved = request.size == 0 ? nullptr : Allocate(request, make);
        if (moved != nullptr)
            std::memcpy(moved, block, std::min(oldSize, request.size));
        if (moved != nullptr || request.size == 0)
            Free(block, end);
        return moved;
    }

    /// Taken whenever something is freed: its holder must not free anything except from the private heap.
    mutable Lock m_lock;
    std::atomic<bool> m_recording{false};
    std::atomic<bool> m_guarding{false};
    std::atomic<bool> m_hasFaults{false};
    GuardedHeap m_guarded;
    Blocks m_blocks;
    Items m_items;
    std::vector<Module, PrivateAllocator<Module>> m_modules;
    AllocationFaults m_faults;
    std::uint64_t m_sequence = 1;
    std::size_t m_bytes = 0;
    std::size_t m_peakBytes = 0;
    std::size_t m_guardedBlocks = 0;
};

/// Watches malloc, calloc, realloc, free, _msize, _strdup, _wcsdup, _aligned_malloc, _aligned_realloc,
/// _aligned_free, HeapAlloc, HeapReAlloc, HeapFree and (MinGW) operator new; these are in no journal. Further events,
/// mutexes, semaphores, threads, processes, files, find handles, registry keys, libraries, performance queries
/// and service handles.
void InstallBalance(FunctionSet &functions, Balance &balance);
/// The names of the memory functions among them.
[[nodiscard]] std::set<std::string> MemoryFunctionNames();

}  // namespace Simulator
