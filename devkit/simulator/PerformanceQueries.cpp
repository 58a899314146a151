#include "PerformanceQueries.h"

#include <atomic>
#include <cstdint>

#include <pdhmsg.h>
#include <winperf.h>

namespace Simulator {

namespace {

constexpr wchar_t kPath[] = L"\\System\\Processor Queue Length";

constexpr PDH_STATUS Status(DWORD code) {
    return static_cast<PDH_STATUS>(code);
}

/// Never reused, not even in a later simulation, and different from the system's handles, whose low bits are clear.
HANDLE NewHandle() {
    static std::atomic<std::uintptr_t> last{0x70440001};
    return reinterpret_cast<HANDLE>(last += 2);
}

bool IsKnown(const wchar_t *path) {
    return CompareStringOrdinal(path, -1, kPath, -1, TRUE) == CSTR_EQUAL;
}

/// Scaling does not affect the counter.
bool IsDouble(DWORD format) {
    return (format & ~(PDH_FMT_NOSCALE | PDH_FMT_NOCAP100)) == PDH_FMT_DOUBLE;
}

}  // namespace

PDH_STATUS PerformanceQueries::Open(const wchar_t *source, PDH_HQUERY *query) {
    if (query == nullptr)
        return Status(PDH_INVALID_ARGUMENT);
    if (source != nullptr)
        return Status(PDH_FILE_NOT_FOUND);  // the machine keeps no logs
    const LockGuard guard(m_lock);
    *query = NewHandle();
    m_queries.try_emplace(*query);
    return ERROR_SUCCESS;
}

PDH_STATUS PerformanceQueries::AddCounter(PDH_HQUERY query, const wchar_t *path, PDH_HCOUNTER *counter) {
    if (path == nullptr || counter == nullptr)
        return Status(PDH_INVALID_ARGUMENT);
    const LockGuard guard(m_lock);
    const auto found = m_queries.find(query);
    if (found == m_queries.end())
        return Status(PDH_INVALID_HANDLE);
    if (!IsKnown(path))
        return Status(PDH_CSTATUS_NO_COUNTER);
    *counter = NewHandle();
    found->second.try_emplace(*counter);
    return ERROR_SUCCESS;
}

PDH_STATUS PerformanceQueries::Collect(PDH_HQUERY query, double value) {
    const LockGuard guard(m_lock);
    const auto found = m_queries.find(query);
    if (found == m_queries.end())
        return Status(PDH_INVALID_HANDLE);
    if (found->second.empty())
        return Status(PDH_NO_DATA);
    for (auto &[counter, collected] : found->second)
        collected = value;
    return ERROR_SUCCESS;
}

PDH_STATUS PerformanceQueries::Format(PDH_HCOUNTER counter, DWORD format, DWORD *type,
                                      PDH_FMT_COUNTERVALUE *value) const {
    if (value == nullptr || !IsDouble(format))
        return Status(PDH_INVALID_ARGUMENT);
    const LockGuard guard(m_lock);
    const std::optional<double> *collected = FindLocked(counter);
    if (collected == nullptr)
        return Status(PDH_INVALID_HANDLE);
    if (!*collected)
        return Status(PDH_INVALID_DATA);
    if (type != nullptr)
        *type = PERF_COUNTER_RAWCOUNT;
    value->CStatus = PDH_CSTATUS_VALID_DATA;
    value->doubleValue = **collected;
    return ERROR_SUCCESS;
}

PDH_STATUS PerformanceQueries::Close(PDH_HQUERY query) {
    const LockGuard guard(m_lock);
    return m_queries.erase(query) == 1 ? ERROR_SUCCESS : Status(PDH_INVALID_HANDLE);
}

const std::optional<double> *PerformanceQueries::FindLocked(PDH_HCOUNTER counter) const {
    for (const auto &[query, counters] : m_queries) {
        const auto found = counters.find(counter);
        if (found != counters.end())
            return &found->second;
    }
    return nullptr;
}

}  // namespace Simulator
