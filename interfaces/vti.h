/* vti, the closed driver library: the way to both filter drivers. A C interface.
 * Every operation that yields a status yields 0 for success; the text of the last failure of a handle
 * comes from vti_get_error. Records cross the boundary, so their layout is fixed. */
#pragma once

#include <stdint.h>

#ifdef VTI_BUILD
#define VTI_API __declspec(dllexport)
#else
#define VTI_API __declspec(dllimport)
#endif

#ifdef __cplusplus
#include <cstddef>
extern "C" {
#endif

/** An open way to the drivers. */
typedef struct vti_handle_t vti_handle_t;

/** A line of the library's own trace. Called on any thread. The result is not looked at. */
typedef int32_t (*vti_trace_handler)(int32_t level, const char *source, const char *file, int32_t line,
                                     const char *text);

/** A printf-like function that the qb_dump_ functions print through. */
typedef int (*qb_print_function)(void *context, const char *format, ...);

/** The first argument of the qb_dump_ functions. */
typedef struct DumpContext {
    qb_print_function print; /**< Called with the address of this record. */
    void *word;              /**< For the print function's own use. */
} DumpContext;

/** What the driver counted, in three regions that only qb_dump_stats reads. */
typedef struct StatsRecord {
    uint32_t word0;   /**< 12 in a request. */
    uint32_t word4;   /**< 6 in a request. */
    uint32_t word8;   /**< 0 in a request. */
    uint32_t word12;  /**< 7325 in a request. */
    uint32_t word16;  /**< 1 in a request. */
    uint32_t regions; /**< Offset of the first region, 64. */
    uint16_t layout0; /**< 293, must come back unchanged. */
    uint16_t layout1; /**< 21, must come back unchanged. */
    uint16_t layout2; /**< 1, must come back unchanged. */
    uint16_t layout3; /**< 32 in a request. */
    uint8_t reserved[8];
    void *firstAddress;  /**< Address of `first` in this record. */
    void *secondAddress; /**< Address of `second` in this record. */
    void *thirdAddress;  /**< Address of `third` in this record. */
    uint8_t first[1664];
    uint8_t second[168];
    uint8_t third[4296];
} StatsRecord;

/** The head of a table of connections; its entries of 64 bytes follow. */
typedef struct ConnTrackHeader {
    uint16_t word0;    /**< Always 3. */
    uint16_t word2;    /**< Always 0. */
    uint16_t entry_ct; /**< Room for entries; on return entries present, or the number of connections. */
    uint16_t word6;    /**< Always 0. */
    uint32_t word8;    /**< Always 0. */
    uint8_t protocol;  /**< 17 UDP, 6 TCP, 0 in a request for totals. */
    uint8_t reserved[3];
} ConnTrackHeader;

/** One variable of the filter; there are 174 of them. */
typedef struct FilterVariable {
    uint32_t index;
    uint32_t value;
} FilterVariable;

/** The head of the blacklist; its body follows. */
typedef struct BlacklistRecord {
    uint8_t head[36];
    uint32_t bodySize; /**< Bytes. */
    uint32_t word40;
} BlacklistRecord;

/** Which ports the driver is to monitor; port p is bit p % 32 of word p / 32. */
typedef struct ScanMonitorRequest {
    uint64_t word0; /**< 1. */
    uint32_t inbound_ports[2048];
    uint32_t outbound_ports[2048];
} ScanMonitorRequest;

/** The running totals of a monitored port, one row of ten counters. */
typedef struct ScanMetricsRecord {
    uint32_t word0;     /**< 1 on the way in. */
    uint32_t direction; /**< 1 inbound, 2 outbound. */
    uint16_t port;
    uint16_t reserved10;
    uint32_t counters_per_row; /**< 10. */
    uint32_t reserved16;
    uint32_t row_count; /**< 1. */
    uint64_t reserved24;
    uint64_t row_head;
    uint64_t counters[10];
} ScanMetricsRecord;

VTI_API vti_handle_t *vti_open(void);
VTI_API void vti_close(vti_handle_t *handle);
/** Greater than 0 when the driver answers. */
VTI_API int32_t vti_driver_available(vti_handle_t *handle);
/** Writes the text of the handle's last failure; a text that fills the buffer has no end mark. */
VTI_API void vti_get_error(vti_handle_t *handle, char *buffer, uint32_t size);

VTI_API int32_t vti_get_stats(vti_handle_t *handle, StatsRecord *record, uint32_t size);
VTI_API int32_t vti_get_varv(vti_handle_t *handle, FilterVariable *variable);
VTI_API int32_t vti_get_var(vti_handle_t *handle, uint32_t index, FilterVariable *variable);
VTI_API int32_t vti_set_var(vti_handle_t *handle, uint32_t index, uint32_t value);
VTI_API int32_t vti_get_conntrack(vti_handle_t *handle, ConnTrackHeader *block, uint32_t size, uint32_t *word);
VTI_API int32_t vti_get_blacklist(vti_handle_t *handle, BlacklistRecord *record);
/** A word that holds the room in bytes, followed by that room; with room 0 it is told the room needed. */
VTI_API int32_t vti_get_profile_stats(vti_handle_t *handle, uint32_t *buffer);
/** Writes the running driver's version into a buffer of at least 112 bytes. */
VTI_API int32_t vti_get_version(vti_handle_t *handle, char *buffer);

/** Tells the library where the agent's profiler keeps its two words. */
VTI_API void vti_set_profiler(volatile unsigned *blockfilter, volatile unsigned *running);
VTI_API int32_t vti_set_trace_level(vti_handle_t *handle, int32_t level);
VTI_API int32_t vti_set_trace_handler(vti_handle_t *handle, vti_trace_handler handler);
VTI_API int32_t vti_set_scan_monitoring(vti_handle_t *handle, const ScanMonitorRequest *request);
VTI_API int32_t vti_get_scan_metrics(vti_handle_t *handle, ScanMetricsRecord *record, uint32_t size);

VTI_API void qb_dump_stats(DumpContext *context, const StatsRecord *record);
VTI_API void qb_dump_filter_variable(DumpContext *context, const FilterVariable *variable, int32_t reserved);
/** The buffer holds a UDP table directly followed by a TCP table. */
VTI_API void qb_dump_all_conn_track(DumpContext *context, const void *tables);
VTI_API void qb_dump_blacklist(DumpContext *context, const BlacklistRecord *record);
/** The library's own print function, to the standard output. */
VTI_API int qb_dump_printf(void *context, const char *format, ...);

#ifdef __cplusplus
}

static_assert(sizeof(DumpContext) == 16 && offsetof(DumpContext, word) == 8);
static_assert(sizeof(StatsRecord) == 6192);
static_assert(offsetof(StatsRecord, word0) == 0 && offsetof(StatsRecord, word4) == 4);
static_assert(offsetof(StatsRecord, word8) == 8 && offsetof(StatsRecord, word12) == 12);
static_assert(offsetof(StatsRecord, word16) == 16 && offsetof(StatsRecord, regions) == 20);
static_assert(offsetof(StatsRecord, layout0) == 24 && offsetof(StatsRecord, layout1) == 26);
static_assert(offsetof(StatsRecord, layout2) == 28 && offsetof(StatsRecord, layout3) == 30);
static_assert(offsetof(StatsRecord, reserved) == 32 && offsetof(StatsRecord, firstAddress) == 40);
static_assert(offsetof(StatsRecord, secondAddress) == 48 && offsetof(StatsRecord, thirdAddress) == 56);
static_assert(offsetof(StatsRecord, first) == 64 && offsetof(StatsRecord, second) == 1728);
static_assert(offsetof(StatsRecord, third) == 1896);
static_assert(sizeof(ConnTrackHeader) == 16 && offsetof(ConnTrackHeader, entry_ct) == 4);
static_assert(offsetof(ConnTrackHeader, word8) == 8 && offsetof(ConnTrackHeader, protocol) == 12);
static_assert(sizeof(FilterVariable) == 8 && offsetof(FilterVariable, value) == 4);
static_assert(sizeof(BlacklistRecord) == 44 && offsetof(BlacklistRecord, bodySize) == 36);
static_assert(sizeof(ScanMonitorRequest) == 16392 && offsetof(ScanMonitorRequest, inbound_ports) == 8);
static_assert(offsetof(ScanMonitorRequest, outbound_ports) == 8200);
static_assert(sizeof(ScanMetricsRecord) == 120 && offsetof(ScanMetricsRecord, direction) == 4);
static_assert(offsetof(ScanMetricsRecord, port) == 8 && offsetof(ScanMetricsRecord, counters_per_row) == 12);
static_assert(offsetof(ScanMetricsRecord, row_count) == 20 && offsetof(ScanMetricsRecord, row_head) == 32);
static_assert(offsetof(ScanMetricsRecord, counters) == 40);
#endif
