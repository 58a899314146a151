// The readable form of the driver's records, a line for each item.
#include <algorithm>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "DriverState.h"

using namespace Vti;

namespace {

constexpr std::size_t kBytesPerLine = 16;

void RecordDump(const char *operation) {
    const std::lock_guard<std::mutex> guard(Lock());
    RecordCall(operation, "");
}

/// A copy: the lock must not be held while printing.
std::vector<std::string> StatsLines() {
    const std::lock_guard<std::mutex> guard(Lock());
    return TheDriver().statsLines;
}

std::string Hex(const uint8_t *bytes, std::size_t size) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < size; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 15];
    }
    return text;
}

template <std::size_t size>
void DumpRegion(DumpContext *context, const char *name, const uint8_t (&region)[size]) {
    for (std::size_t i = 0; i < size / sizeof(uint32_t); ++i) {
        uint32_t word = 0;
        std::memcpy(&word, region + i * sizeof word, sizeof word);
        context->print(context, "%s[%u] = %" PRIu32 "\n", name, static_cast<unsigned>(i), word);
    }
}

/// @return the address after the table.
const uint8_t *DumpConnections(DumpContext *context, const uint8_t *table) {
    ConnTrackHeader head;
    std::memcpy(&head, table, sizeof head);
    const char *protocol = head.protocol == 17 ? "udp" : "tcp";
    context->print(context, "%s connections = %u\n", protocol, static_cast<unsigned>(head.entry_ct));
    const uint8_t *entry = table + sizeof head;
    for (unsigned i = 0; i < head.entry_ct; ++i, entry += sizeof(Connection))
        context->print(context, "%s[%u] = %s\n", protocol, i, Hex(entry, sizeof(Connection)).c_str());
    return entry;
}

}  // namespace

void qb_dump_stats(DumpContext *context, const StatsRecord *record) {
    RecordDump("qb_dump_stats");
    DumpRegion(context, "first", record->first);
    DumpRegion(context, "second", record->second);
    DumpRegion(context, "third", record->third);
    for (const std::string &line : StatsLines())
        context->print(context, "%s", line.c_str());
}

void qb_dump_filter_variable(DumpContext *context, const FilterVariable *variable, int32_t) {
    RecordDump("qb_dump_filter_variable");
    context->print(context, "variable[%" PRIu32 "] = %" PRIu32 "\n", variable->index, variable->value);
}

void qb_dump_all_conn_track(DumpContext *context, const void *tables) {
    RecordDump("qb_dump_all_conn_track");
    const uint8_t *tcp = DumpConnections(context, static_cast<const uint8_t *>(tables));
    (void)DumpConnections(context, tcp);
}

void qb_dump_blacklist(DumpContext *context, const BlacklistRecord *record) {
    RecordDump("qb_dump_blacklist");
    context->print(context, "blacklist bytes = %" PRIu32 "\n", record->bodySize);
    const auto *body = reinterpret_cast<const uint8_t *>(record + 1);
    for (std::size_t offset = 0; offset < record->bodySize; offset += kBytesPerLine) {
        const std::size_t size = std::min(kBytesPerLine, record->bodySize - offset);
        context->print(context, "%04x %s\n", static_cast<unsigned>(offset), Hex(body + offset, size).c_str());
    }
}

int qb_dump_printf(void *, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int printed = std::vprintf(format, arguments);
    va_end(arguments);
    return printed;
}
