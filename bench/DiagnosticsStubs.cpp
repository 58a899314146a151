#include "DiagnosticsStubs.h"

#include "Redirect.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include <wx/stream.h>
#include <wx/string.h>

#include "vti.h"

namespace DiagnosticsStubs {

namespace {

using AddFromStream = bool(void *zip, wxInputStream &in, bool text, const wxString &name, const wxString &comment);
AddFromStream *realAdd = nullptr;

bool AddFile(void *zip, wxInputStream &in, bool text, const wxString &name, const wxString &comment) {
    ++TheState().files;
    TheState().bytes += static_cast<std::size_t>(in.GetLength());
    return !TheState().packs || realAdd(zip, in, text, name, comment);
}

int32_t IsAvailable(vti_handle_t *) {
    return 1;
}

int32_t GetStatistics(vti_handle_t *, StatsRecord *, uint32_t) {
    return 0;
}

int32_t GetVariable(vti_handle_t *, FilterVariable *) {
    return 0;
}

int32_t GetConnections(vti_handle_t *, ConnTrackHeader *table, uint32_t, uint32_t *) {
    if (table->protocol == 0)
        table->entry_ct = kUdpEntries + kTcpEntries;
    else
        table->entry_ct = std::min(table->entry_ct, table->protocol == 17 ? kUdpEntries : kTcpEntries);
    return 0;
}

int32_t GetBlacklist(vti_handle_t *, BlacklistRecord *record) {
    record->bodySize = kBlacklistBytes;
    return 0;
}

int32_t GetProfile(vti_handle_t *, uint32_t *room) {
    *room = kProfileBytes;
    return 0;
}

int32_t GetOneVariable(vti_handle_t *, uint32_t, FilterVariable *variable) {
    variable->value = 0;
    return 0;
}

/// A print function that goes through the context, as the driver library's does.
auto Through(DumpContext *context) {
    return [context](const char *format, auto... arguments) { context->print(context, format, arguments...); };
}

void DumpStatistics(DumpContext *context, const StatsRecord *) {
    PrintStatistics(Through(context));
}

void DumpVariable(DumpContext *context, const FilterVariable *variable, int32_t) {
    PrintVariable(variable->index, Through(context));
}

void DumpConnections(DumpContext *context, const void *) {
    PrintConnections(Through(context));
}

void DumpBlacklist(DumpContext *context, const BlacklistRecord *) {
    PrintBlacklist(Through(context));
}

}  // namespace

const char *HexText() {
    static const std::string text = [] {
        std::string hex;
        while (hex.size() < 128)
            hex += "0123456789abcdef";
        return hex;
    }();
    return text.c_str();
}

State &TheState() {
    static State state;
    return state;
}

std::vector<Simulator::Redirection> PutUnder(HMODULE module) {
    std::vector<Simulator::Redirection> redirections;
    const auto put = [&](const char *function, auto *stub) { Redirect(redirections, module, function, stub); };
    put("_ZN7VtaCore16CZipOutputStream13AddFromStreamER13wxInputStreambRK8wxStringS5_", AddFile);
    realAdd = reinterpret_cast<AddFromStream *>(redirections.back().Original());
    put("vti_driver_available", IsAvailable);
    put("vti_get_stats", GetStatistics);
    put("vti_get_varv", GetVariable);
    put("vti_get_conntrack", GetConnections);
    put("vti_get_blacklist", GetBlacklist);
    put("vti_get_profile_stats", GetProfile);
    put("vti_get_var", GetOneVariable);
    put("qb_dump_stats", DumpStatistics);
    put("qb_dump_filter_variable", DumpVariable);
    put("qb_dump_all_conn_track", DumpConnections);
    put("qb_dump_blacklist", DumpBlacklist);
    return redirections;
}

}  // namespace DiagnosticsStubs
