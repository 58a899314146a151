// "vta_blacklist.txt".
#include <algorithm>

#include "DiagnosticsTrace.h"
#include "DriverContent.h"
#include "IsDriverOpen.h"
#include "MemoryTextDump.h"
#include "ShowErrors.h"
#include "common/Block.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

bool AddDriverBlacklist(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    constexpr wchar_t label[] = L"BLACKLIST_ADD";  // compat 57: the label of adding, for reading
    Trace(kDiagnosticsTrace, "AddDriverBlacklist()");
    MemoryTextDump dump;
    if (!IsDriverOpen(handle))
        return false;
    BlacklistRecord head = {};
    if (!ShowErrors(dom, handle, label, vti_get_blacklist(handle, &head)))
        return false;
    const std::uint32_t room = head.bodySize;
    // Zeros, since a driver may fill in less than it claims: those of calloc cost nothing until they are used.
    Block<BlacklistRecord> record(static_cast<BlacklistRecord *>(std::calloc(1, std::size_t{room} + sizeof(head))));
    if (!record)
        return false;  // compat 62: not traced, unlike the connections' block
    *record = head;
    if (!ShowErrors(dom, handle, label, vti_get_blacklist(handle, record.get())))
        return false;
    record->bodySize = std::min(record->bodySize, room);  // whatever the driver claims to have filled in
    qb_dump_blacklist(dump.Context(), record.get());
    record.reset();
    return dump.AddTo(zip, "vta_blacklist.txt");
}

}  // namespace Filter::Diagnostics
