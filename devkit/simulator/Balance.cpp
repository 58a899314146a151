#include "Balance.h"

#include <algorithm>
#include <cerrno>

#include "ArgumentText.h"
#include "ModuleImage.h"

namespace Simulator {

namespace {

bool EarlierMade(const BalanceItem &a, const BalanceItem &b) {
    return a.sequence < b.sequence;
}

/// Of items sorted by sequence: those that are only in `these`.
std::vector<BalanceItem> Without(const std::vector<BalanceItem> &these, const std::vector<BalanceItem> &others) {
    const InsideSimulator inside;
    std::vector<BalanceItem> rest;
    std::set_difference(these.begin(), these.end(), others.begin(), others.end(), std::back_inserter(rest),
                        EarlierMade);
    return rest;
}

}  // namespace

std::size_t BalanceSnapshot::Count(std::string_view kind) const {
    const auto isIt = [kind](const BalanceItem &item) { return item.kind == kind; };
    return static_cast<std::size_t>(std::count_if(items.begin(), items.end(), isIt));
}

Balance &Balance::Instance() {
    static Balance &balance = *[] {
        const InsideSimulator inside;
        return new Balance;
    }();
    return balance;
}

void Balance::Start() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (auto place = m_blocks.begin(); place != m_blocks.end();) {
        const auto next = std::next(place);
        if (!place->second.guarded)
            ForgetLocked(place);
        place = next;
    }
    m_items.clear();
    m_peakBytes = m_bytes;
    m_recording = true;
}

void Balance::Stop() {
    StopGuarding();
    CancelAllocationFaults();
    m_recording = false;
}

BalanceSnapshot Balance::Take() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    BalanceSnapshot snapshot{m_blocks.size(), m_bytes, m_peakBytes, m_sequence, {}};
    snapshot.items.reserve(m_blocks.size() + m_items.size());
    for (const auto &[address, block] : m_blocks)
        snapshot.items.push_back({Kind::kBlock, reinterpret_cast<std::uintptr_t>(address), block.size, block.sequence,
                                  block.function, block.caller, block.thread});
    for (const auto &[key, item] : m_items)
        snapshot.items.push_back(item);
    std::sort(snapshot.items.begin(), snapshot.items.end(), EarlierMade);
    return snapshot;
}

void Balance::ResetPeak() {
    const LockGuard guard(m_lock);
    m_peakBytes = m_bytes;
}

std::vector<BalanceItem> Balance::Left(const BalanceSnapshot &before, const BalanceSnapshot &after) {
    return Without(after.items, before.items);
}

std::string Balance::Difference(const BalanceSnapshot &before, const BalanceSnapshot &after) const {
    const InsideSimulator inside;
    std::string text;
    for (const BalanceItem &item : Without(after.items, before.items))
        text += Line('+', item);
    for (const BalanceItem &item : Without(before.items, after.items))
        text += Line('-', item);
    return text;
}

std::string Balance::Line(char sign, const BalanceItem &item) const {
    std::string line = std::string(1, sign) + ' ' + item.kind;
    if (item.kind == std::string_view(Kind::kBlock))
        line += " of " + std::to_string(item.size) + " bytes";
    return line + ", #" + std::to_string(item.sequence) + ", by " + item.function + Place(item.caller) + ", thread " +
           std::to_string(item.thread) + "\n";
}

std::string Balance::Place(const void *caller) const {
    if (caller == nullptr)
        return {};
    auto address = reinterpret_cast<std::uintptr_t>(caller);
    std::string place = " from ";
    place.reserve(MAX_PATH + 32);
    {
        const LockGuard guard(m_lock);
        const auto contains = [address](const Module &each) { return address - each.base < each.size; };
        const auto module = std::find_if(m_modules.rbegin(), m_modules.rend(), contains);
        if (module != m_modules.rend()) {
            address -= module->base;
            place += module->name;
            place += '+';
        }
    }
    AppendPointer(place, reinterpret_cast<const void *>(address));
    return place;
}

void Balance::Remember(HMODULE module) {
    const InsideSimulator inside;
    Module entry{reinterpret_cast<std::uintptr_t>(module), ImageSize(module), BaseName(module)};
    const LockGuard guard(m_lock);
    m_modules.push_back(std::move(entry));
}

AllocationFaultHandle Balance::FailAllocation(unsigned nth, HMODULE module, DWORD thread, bool newToo) {
    const InsideSimulator inside;
    auto fault = std::make_shared<AllocationFault>();
    fault->m_nth = nth;
    fault->m_module = module;
    fault->m_thread = thread;
    fault->m_newToo = newToo;
    const LockGuard guard(m_lock);
    m_faults.push_back(fault);
    m_hasFaults = true;
    return fault;
}

void Balance::CancelAllocationFaults() {
    const InsideSimulator inside;
    AllocationFaults cancelled;
    const LockGuard guard(m_lock);
    cancelled.swap(m_faults);
    m_hasFaults = false;
}

bool Balance::FailsByPlan(const Request &request) {
    if (!m_hasFaults)
        return false;
    const bool byNew = std::strcmp(request.function, kOperatorNew) == 0;
    const LockGuard guard(m_lock);
    bool fails = false;
    for (const AllocationFaultHandle &fault : m_faults) {
        if ((fault->m_newToo || !byNew) && (fault->m_thread == 0 || fault->m_thread == GetCurrentThreadId()) &&
            (fault->m_module == nullptr || ImageContains(fault->m_module, request.caller)) &&
            ++fault->m_seen == fault->m_nth) {
            fault->m_hit = true;
            fails = true;
        }
    }
    if (fails)
        errno = ENOMEM;
    return fails;
}

void Balance::Guard(const GuardedHeap::Options &options) {
    m_guarded.Use(options);
    m_guarding = true;
}

void Balance::StopGuarding() {
    m_guarding = false;
}

std::size_t Balance::GuardedBlocks() const {
    const LockGuard guard(m_lock);
    return m_guardedBlocks;
}

void Balance::Opened(const char *kind, std::uintptr_t value, const char *function) {
    if (!m_recording)
        return;
    const LockGuard guard(m_lock);
    m_items.emplace(ItemKey(kind, value),
                    BalanceItem{kind, value, 0, m_sequence++, function, nullptr, GetCurrentThreadId()});
}

bool Balance::Closed(const char *kind, std::uintptr_t value) {
    const LockGuard guard(m_lock);
    const auto place = m_items.find(ItemKey(kind, value));
    if (place == m_items.end())
        return false;
    m_items.erase(place);
    return true;
}

void Balance::Record(void *block, const Request &request, bool guarded) {
    if (InsideSimulator::Here())
        return;
    const LockGuard guard(m_lock);
    InsertLocked(block, {request.size, m_sequence++, request.function, request.caller, GetCurrentThreadId(), guarded});
}

void Balance::Restore(void *block, const Block &known) {
    const LockGuard guard(m_lock);
    InsertLocked(block, known);
}

void Balance::InsertLocked(void *block, const Block &known) {
    const auto stale = m_blocks.find(block);
    if (stale != m_blocks.end())  // freed by an unwatched module
        ForgetLocked(stale);
    m_blocks.emplace(block, known);
    m_bytes += known.size;
    m_peakBytes = std::max(m_peakBytes, m_bytes);
    m_guardedBlocks += known.guarded ? 1U : 0U;
}

bool Balance::Forget(void *block, Block &known) {
    const LockGuard guard(m_lock);
    const auto place = m_blocks.find(block);
    if (place == m_blocks.end())
        return false;
    known = place->second;
    ForgetLocked(place);
    return true;
}

void Balance::ForgetLocked(Blocks::iterator place) {
    m_bytes -= place->second.size;
    m_guardedBlocks -= place->second.guarded ? 1U : 0U;
    m_blocks.erase(place);
}

bool Balance::Find(void *block, Block &known) const {
    const LockGuard guard(m_lock);
    const auto place = m_blocks.find(block);
    if (place == m_blocks.end())
        return false;
    known = place->second;
    return true;
}

bool Balance::GuardedSize(void *block, std::size_t &size) const {
    Block known;
    if (!Find(block, known) || !known.guarded)
        return false;
    size = known.size;
    return true;
}

}  // namespace Simulator
