// The open performance queries of the simulated machine.
#pragma once

#include <map>
#include <optional>

#include <windows.h>
#include <pdh.h>

#include "Lock.h"

namespace Simulator {

/// Queries of the only counter, the length of the processor queue. The functions behave like those of pdh.dll, and do
/// not change output parameters when they fail. Any thread.
class PerformanceQueries {
public:
    PDH_STATUS Open(const wchar_t *source, PDH_HQUERY *query);
    PDH_STATUS AddCounter(PDH_HQUERY query, const wchar_t *path, PDH_HCOUNTER *counter);
    /// @param value  the value of all counters of the query from now on.
    PDH_STATUS Collect(PDH_HQUERY query, double value);
    PDH_STATUS Format(PDH_HCOUNTER counter, DWORD format, DWORD *type, PDH_FMT_COUNTERVALUE *value) const;
    PDH_STATUS Close(PDH_HQUERY query);

private:
    using Counters = std::map<PDH_HCOUNTER, std::optional<double>>;  ///< Each with its collected value.

    [[nodiscard]] const std::optional<double> *FindLocked(PDH_HCOUNTER counter) const;

    mutable Lock m_lock;
    std::map<PDH_HQUERY, Counters> m_queries;
};

}  // namespace Simulator
