// "vta_stats.txt": what the driver counted.
#include <cstddef>

#include "DiagnosticsTrace.h"
#include "DriverContent.h"
#include "IsDriverOpen.h"
#include "MemoryTextDump.h"
#include "ShowErrors.h"
#include "common/Block.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

namespace {

constexpr wchar_t kStatsLabel[] = L"GET_STATS";
constexpr std::int32_t kWrongLayout = -1;
// compat 63: reports an answer of another layout as a failed call with status -1
constexpr std::uint16_t kLayout0 = 293;
constexpr std::uint16_t kLayout1 = 21;
constexpr std::uint16_t kLayout2 = 1;

void PrepareStatisticsRequest(StatsRecord &record) {
    record.word0 = 12;
    record.word4 = 6;
    record.word12 = 7325;
    record.word16 = 1;
    record.regions = offsetof(StatsRecord, first);
    record.layout0 = kLayout0;
    record.layout1 = kLayout1;
    record.layout2 = kLayout2;
    record.layout3 = 32;
    record.firstAddress = record.first;
    record.secondAddress = record.second;
    record.thirdAddress = record.third;
}

}  // namespace

static bool getDriverStatistics(VtaCore::CDom &dom, vti_handle_t *handle, StatsRecord &record) {
    Trace(kDiagnosticsTrace, "getDriverStatistics()");
    if (!IsDriverOpen(handle))
        return false;
    Trace(kDiagnosticsTrace, "driver is opened calling vti_get_stats");
    if (!ShowErrors(dom, handle, kStatsLabel, vti_get_stats(handle, &record, sizeof(record))))
        return false;
    if (record.layout0 != kLayout0 || record.layout1 != kLayout1 || record.layout2 != kLayout2)
        return ShowErrors(dom, handle, kStatsLabel, kWrongLayout);
    return true;
}

bool AddDriverStatistics(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    Trace(kDiagnosticsTrace, "AddDriverStatistics()");
    Block<StatsRecord> record(static_cast<StatsRecord *>(std::calloc(1, sizeof(StatsRecord))));
    if (!record)
        return false;
    PrepareStatisticsRequest(*record);
    Trace(kDiagnosticsTrace, "AddDriverStatistics() - about to get stats");
    MemoryTextDump dump;
    if (!getDriverStatistics(dom, handle, *record))
        return false;
    Trace(kDiagnosticsTrace, "AddDriverStatistics() - got stats");
    qb_dump_stats(dump.Context(), record.get());
    Trace(kDiagnosticsTrace, "AddDriverStatistics() - dumped stats");
    record.reset();
    return dump.AddTo(zip, "vta_stats.txt");
}

}  // namespace Filter::Diagnostics
