#include "PrintedTexts.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <memory>
#include <stdexcept>

namespace {

/// Appends to the std::string behind the context.
int Collect(void *context, const char *format, ...) {
    char line[8192];
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line, sizeof(line), format, arguments);
    va_end(arguments);
    static_cast<std::string *>(static_cast<DumpContext *>(context)->word)->append(line);
    return length;
}

template <typename Dump>
std::string Printed(const Dump &dump) {
    std::string text;
    DumpContext context{&Collect, &text};
    dump(&context);
    return AsPackedText(text);
}

void AppendTable(std::vector<uint8_t> &tables, uint8_t protocol, const std::vector<Vti::Connection> &connections) {
    const ConnTrackHeader head{3, 0, static_cast<uint16_t>(connections.size()), 0, 0, protocol, {}};
    const auto *bytes = reinterpret_cast<const uint8_t *>(&head);
    tables.insert(tables.end(), bytes, bytes + sizeof(head));
    for (const Vti::Connection &connection : connections)
        tables.insert(tables.end(), connection.bytes.begin(), connection.bytes.end());
}

}  // namespace

std::string AsPackedText(const std::string &printed) {
    std::string packed;
    for (const char character : printed) {
        const auto code = static_cast<unsigned char>(character);
        if (character == '\n')
            packed += "\r\n";
        else if (code < 0x80)
            packed += character;
        else
            packed += {static_cast<char>(0xC0 | code >> 6), static_cast<char>(0x80 | (code & 0x3F))};
    }
    return packed;
}

std::string PrintedStats(vti_handle_t *handle) {
    auto record = std::make_unique<StatsRecord>();
    constexpr uint32_t words[] = {12, 6, 0, 7325, 1, 64, 21U << 16 | 293, 32U << 16 | 1};
    std::memcpy(record.get(), words, sizeof(words));
    record->firstAddress = record->first;
    record->secondAddress = record->second;
    record->thirdAddress = record->third;
    if (vti_get_stats(handle, record.get(), sizeof(*record)) != 0)
        throw std::runtime_error("the driver does not give its statistics");
    return Printed([&](DumpContext *context) { qb_dump_stats(context, record.get()); });
}

std::string PrintedVariables(const Vti::Driver &driver) {
    return Printed([&](DumpContext *context) {
        for (uint32_t i = 0; i < driver.variables.size(); ++i) {
            const FilterVariable variable{i, driver.variables[i]};
            qb_dump_filter_variable(context, &variable, 0);
        }
    });
}

std::string PrintedConnections(const std::vector<Vti::Connection> &udp, const std::vector<Vti::Connection> &tcp) {
    std::vector<uint8_t> tables;
    AppendTable(tables, 17, udp);
    AppendTable(tables, 6, tcp);
    return Printed([&](DumpContext *context) { qb_dump_all_conn_track(context, tables.data()); });
}

std::string PrintedBlacklist(const std::vector<uint8_t> &body) {
    std::vector<uint8_t> record(sizeof(BlacklistRecord));
    const auto size = static_cast<uint32_t>(body.size());
    std::memcpy(record.data() + offsetof(BlacklistRecord, bodySize), &size, sizeof(size));
    record.insert(record.end(), body.begin(), body.end());
    return Printed([&](DumpContext *context) {
        qb_dump_blacklist(context, reinterpret_cast<const BlacklistRecord *>(record.data()));
    });
}
