// The stand-in for vti: profiler, trace, scan monitoring, and the readable dumps.
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <iterator>
#include <memory>

#include "VtiTestSupport.h"

namespace {

constexpr int32_t kInvalidRequest = -10003;

class VtiMonitoring : public OpenedDriver {};

std::vector<std::string> traced;

int32_t KeepTrace(int32_t level, const char *source, const char *file, int32_t line, const char *text) {
    traced.push_back(std::to_string(level) + " " + source + " " + file + ":" + std::to_string(line) + " " + text);
    // A handler may call the library, which takes its lock.
    (void)vti_driver_available(nullptr);
    return 0;
}

int AppendTo(void *context, const char *format, ...) {
    char line[400];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    static_cast<std::vector<std::string> *>(static_cast<DumpContext *>(context)->word)->emplace_back(line);
    return length;
}

}  // namespace

TEST_F(VtiMonitoring, KeepsTheProfilersWords) {
    volatile unsigned block = 0;
    volatile unsigned running = 0;
    vti_set_profiler(&block, &running);
    EXPECT_EQ(driver.profilerBlockfilter, &block);
    EXPECT_EQ(driver.profilerRunning, &running);
}

TEST_F(VtiMonitoring, TracesUpToTheLevelWithoutHoldingItsLock) {
    traced.clear();
    Vti::Trace(1, "before", "a.c", 1, "no handler yet");
    EXPECT_EQ(vti_set_trace_handler(handle, KeepTrace), 0);
    EXPECT_EQ(vti_set_trace_level(handle, 3), 0);
    Vti::Trace(3, "qb", "a.c", 7, "wanted");
    Vti::Trace(4, "qb", "a.c", 8, "too fine");
    EXPECT_EQ(vti_set_trace_handler(handle, nullptr), 0);
    Vti::Trace(1, "qb", "a.c", 9, "no handler any more");
    EXPECT_EQ(traced, std::vector<std::string>{"3 qb a.c:7 wanted"});
}

TEST_F(VtiMonitoring, KeepsTheLastScanRequest) {
    const auto request = std::make_unique<ScanMonitorRequest>();
    request->word0 = 1;
    request->outbound_ports[2047] = 0x8000'0000U;
    EXPECT_EQ(vti_set_scan_monitoring(handle, request.get()), 0);
    ASSERT_EQ(driver.monitorRequest.size(), 16'392U);
    EXPECT_EQ(driver.monitorRequest.back(), 0x80);
    request->word0 = 2;
    EXPECT_EQ(vti_set_scan_monitoring(handle, request.get()), kInvalidRequest);
    EXPECT_EQ(driver.monitorRequest.front(), 1);
}

TEST_F(VtiMonitoring, ScanMetricsFillTenCounters) {
    driver.scanCounters = {1, 2, 3, 4, 5, 6, 7, 8, 9, 1ULL << 40};
    ScanMetricsRecord record{};
    record.word0 = 1;
    record.direction = 2;
    record.port = 443;
    record.counters_per_row = 10;
    record.row_count = 1;
    EXPECT_EQ(vti_get_scan_metrics(handle, &record, sizeof record), 0);
    EXPECT_EQ(record.counters[9], 1ULL << 40);
    EXPECT_EQ(driver.calls.back(), "vti_get_scan_metrics(2, 443)");
    EXPECT_EQ(vti_get_scan_metrics(handle, &record, sizeof record - 8), kInvalidRequest);
    record.counters_per_row = 9;
    EXPECT_EQ(vti_get_scan_metrics(handle, &record, sizeof record), kInvalidRequest);
}

TEST_F(VtiMonitoring, ScanMetricsFillOnlyTheClaimedCounters) {
    driver.scanCounters.fill(7);
    for (const std::array<uint32_t, 2> shape : {std::array<uint32_t, 2>{3, 1}, {0, 1}, {11, 1}, {10, 0}}) {
        SCOPED_TRACE(std::to_string(shape[0]) + " by " + std::to_string(shape[1]));
        driver.scanShape = shape;
        ScanMetricsRecord record{};
        record.word0 = record.direction = record.row_count = 1;
        record.counters_per_row = 10;
        EXPECT_EQ(vti_get_scan_metrics(handle, &record, sizeof record), 0);
        EXPECT_EQ(record.counters_per_row, shape[0]);
        EXPECT_EQ(record.row_count, shape[1]);
        const auto filled = std::count(std::begin(record.counters), std::end(record.counters), 7U);
        EXPECT_EQ(filled, shape[1] == 0 ? 0 : std::min<uint32_t>(shape[0], 10));
        EXPECT_EQ(std::count(std::begin(record.counters), std::begin(record.counters) + filled, 7U), filled);
    }
}

TEST_F(VtiMonitoring, DumpsAVariableAsALine) {
    std::vector<std::string> lines;
    DumpContext context{AppendTo, &lines};
    const FilterVariable variable{12, 4'000'000'000U};
    qb_dump_filter_variable(&context, &variable, 0);
    EXPECT_EQ(lines, std::vector<std::string>{"variable[12] = 4000000000\n"});
}

TEST_F(VtiMonitoring, DumpsEveryWordOfTheStatistics) {
    std::vector<std::string> lines;
    DumpContext context{AppendTo, &lines};
    const auto record = std::make_unique<StatsRecord>();
    record->third[0] = 7;
    qb_dump_stats(&context, record.get());
    ASSERT_EQ(lines.size(), 416U + 42 + 1074);
    EXPECT_EQ(lines[0], "first[0] = 0\n");
    EXPECT_EQ(lines[416 + 42], "third[0] = 7\n");
}

TEST_F(VtiMonitoring, DumpsTheTcpTableAfterTheUdpTable) {
    std::vector<uint8_t> tables(16 + 64 + 16 + 2 * 64);
    auto *udp = reinterpret_cast<ConnTrackHeader *>(tables.data());
    udp->protocol = 17;
    udp->entry_ct = 1;
    auto *tcp = reinterpret_cast<ConnTrackHeader *>(tables.data() + 80);
    tcp->protocol = 6;
    tcp->entry_ct = 2;
    tables.back() = 0xFE;
    std::vector<std::string> lines;
    DumpContext context{AppendTo, &lines};
    qb_dump_all_conn_track(&context, tables.data());
    ASSERT_EQ(lines.size(), 5U);
    EXPECT_EQ(lines[0], "udp connections = 1\n");
    EXPECT_EQ(lines[2], "tcp connections = 2\n");
    EXPECT_EQ(lines[4], "tcp[1] = " + std::string(126, '0') + "fe\n");
}

TEST_F(VtiMonitoring, DumpsTheBlacklistSixteenBytesALine) {
    std::vector<uint8_t> buffer(sizeof(BlacklistRecord) + 17, 0xAB);
    reinterpret_cast<BlacklistRecord *>(buffer.data())->bodySize = 17;
    std::vector<std::string> lines;
    DumpContext context{AppendTo, &lines};
    qb_dump_blacklist(&context, reinterpret_cast<const BlacklistRecord *>(buffer.data()));
    const std::vector<std::string> expected{"blacklist bytes = 17\n", "0000 abababababababababababababababab\n",
                                            "0010 ab\n"};
    EXPECT_EQ(lines, expected);
}

TEST_F(VtiMonitoring, PrintsToTheStandardOutput) {
    ::testing::internal::CaptureStdout();
    const int printed = qb_dump_printf(nullptr, "%s %d\n", "rows", 3);
    (void)std::fflush(stdout);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "rows 3\n");
    EXPECT_EQ(printed, 7);
}
