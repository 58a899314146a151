// "vta_conn_track.txt": the connections that the driver keeps track of.
#include <algorithm>
#include <cstring>
#include <new>

#include "DiagnosticsTrace.h"
#include "DriverContent.h"
#include "IsDriverOpen.h"
#include "MemoryTextDump.h"
#include "ShowErrors.h"
#include "common/Block.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

namespace {

constexpr wchar_t kConnTrackLabel[] = L"GET_CONN_TRACK";
constexpr std::uint16_t kHeadWord = 3;
constexpr std::uint8_t kUdp = 17;
constexpr std::uint8_t kTcp = 6;
constexpr std::size_t kEntryBytes = 64;

/// A UDP table directly followed by a TCP table.
using ConnTrackBuffer = Block<std::uint8_t>;

std::size_t ConnTrackTableBytes(std::size_t entries) {
    return sizeof(ConnTrackHeader) + kEntryBytes * entries;
}

std::int32_t RequestConnTrack(vti_handle_t *handle, ConnTrackHeader &table) {
    std::uint32_t unused = 0;
    return vti_get_conntrack(handle, &table, static_cast<std::uint32_t>(ConnTrackTableBytes(table.entry_ct)), &unused);
}

/// Makes the head of a table at an address that has room for it and the entries.
ConnTrackHeader &PrepareConnTrackTable(std::uint8_t *at, std::uint16_t entries, std::uint8_t protocol) {
    auto *const table = new (at) ConnTrackHeader{};
    table->word0 = kHeadWord;
    table->entry_ct = entries;
    table->protocol = protocol;
    return *table;
}

/// Reads a table. One that can't be read stays as an empty one; one that claims more entries than it had room for
/// has as many as it had room for.
void ReadConnTrackTable(VtaCore::CDom &dom, vti_handle_t *handle, ConnTrackHeader &table, const TraceLine &line) {
    const std::uint16_t room = table.entry_ct;
    const std::int32_t status = RequestConnTrack(handle, table);
    if (!ShowErrors(dom, handle, kConnTrackLabel, status)) {
        Trace(line, "rc = %d", status);
        table.entry_ct = 0;
    }
    table.entry_ct = std::min(table.entry_ct, room);
}

}  // namespace

/// @param buffer  receives both tables; nothing without a driver, connections or memory.
/// @return false if the totals could not be read.
static bool getDriverConnTrack(VtaCore::CDom &dom, vti_handle_t *handle, ConnTrackBuffer &buffer) {
    buffer.reset();
    if (!IsDriverOpen(handle))
        return true;
    ConnTrackHeader totConn = {};
    totConn.word0 = kHeadWord;
    if (!ShowErrors(dom, handle, kConnTrackLabel, RequestConnTrack(handle, totConn)))
        return false;
    Trace(kDiagnosticsTrace, "totConn.entry_ct was %d", totConn.entry_ct);
    const std::uint16_t entries = totConn.entry_ct;
    if (entries == 0)
        return true;

    const std::size_t bytes = ConnTrackTableBytes(entries) + sizeof(ConnTrackHeader);
    buffer.reset(static_cast<std::uint8_t *>(std::malloc(bytes)));
    if (!buffer) {
        Trace(kDiagnosticsTrace, "malloc %u bytes failed.", static_cast<unsigned>(bytes));
        return true;
    }
    std::memset(buffer.get(), 0, bytes);  // a driver may fill in less than it claims
    ConnTrackHeader &udpConn = PrepareConnTrackTable(buffer.get(), entries, kUdp);
    ReadConnTrackTable(dom, handle, udpConn, kDiagnosticsTrace);
    Trace(kDiagnosticsTrace, "udpConn->entry_ct = %u", udpConn.entry_ct);
    // TCP gets the room that UDP has left.
    const auto rest = static_cast<std::uint16_t>(entries - udpConn.entry_ct);
    ConnTrackHeader &tcpConn = PrepareConnTrackTable(buffer.get() + ConnTrackTableBytes(udpConn.entry_ct), rest, kTcp);
    if (rest != 0)
        ReadConnTrackTable(dom, handle, tcpConn, kDiagnosticsTrace);
    Trace(kDiagnosticsTrace, "tcpConn->entry_ct = %u", tcpConn.entry_ct);
    return true;
}

bool AddDriverConnTrack(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    Trace(kDiagnosticsTrace, "AddDriverConnTrack()");
    MemoryTextDump dump;
    ConnTrackBuffer buffer;
    if (!getDriverConnTrack(dom, handle, buffer))
        return false;
    // compat 61: no driver, no connections and no memory all count as success without a file
    if (!buffer)
        return true;
    qb_dump_all_conn_track(dump.Context(), buffer.get());
    buffer.reset();
    return dump.AddTo(zip, "vta_conn_track.txt");
}

}  // namespace Filter::Diagnostics
