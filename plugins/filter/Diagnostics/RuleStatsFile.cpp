// "vta.tpf": the profile of the filter's rules, as the driver gives it.
#include <algorithm>

#include <wx/stream.h>

#include "DiagnosticsTrace.h"
#include "DriverContent.h"
#include "FileMemory.h"
#include "ShowErrors.h"
#include "common/Block.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

namespace {

constexpr std::uint32_t kProfileVariable = 62;

/// The room in bytes, on return the bytes present; that many bytes follow.
using ProfileStatsBuffer = Block<std::uint32_t>;

/// compat 64: sets the variable from 1 back to 0 once its profile was read
void ResetRuleStatsVariable(vti_handle_t *handle) {
    FilterVariable variable = {};
    if (vti_get_var(handle, kProfileVariable, &variable) == 0 && variable.value == 1)
        (void)vti_set_var(handle, kProfileVariable, 0);
}

void WriteRuleStats(VtaCore::CDom &dom, vti_handle_t *handle, wxOutputStream &out, const TraceSite &site) {
    std::uint32_t room = 0;
    if (vti_get_profile_stats(handle, &room) != 0 || room == 0)
        return;  // no report
    const ProfileStatsBuffer buffer = MakeZeroedBlock<std::uint32_t>(sizeof(room) + room);
    if (!buffer) {
        Trace(site, "malloc() failed");
        return;
    }
    *buffer = room;
    const std::int32_t status = vti_get_profile_stats(handle, buffer.get());
    if (status != 0) {
        (void)ShowErrors(dom, handle, L"vti_get_profile_stats()", status);
        return;
    }
    out.Write(buffer.get() + 1, std::min(*buffer, room));  // the driver may claim more than fits
    ResetRuleStatsVariable(handle);
}

/// @return false if memory runs out: the stream would write to null.
bool CollectRuleStats(VtaCore::CDom &dom, vti_handle_t *handle, FileMemory &memory, const TraceSite &site) {
    wxBufferedOutputStream out(memory);
    if (out.GetOutputStreamBuffer()->GetBufferStart() == nullptr)
        return false;
    WriteRuleStats(dom, handle, out, site);
    return true;
}

}  // namespace

bool AddDriverRuleStats(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    Trace(kDiagnosticsTrace, "AddDriverRuleStats()");
    // compat 60: does not ask whether the driver is open, and adds its file even if empty
    FileMemory memory;
    return CollectRuleStats(dom, handle, memory, kDiagnosticsTrace) &&
           AddFileMemory(zip, memory, FileKind::Binary, "vta.tpf");
}

}  // namespace Filter::Diagnostics
