// "vta_variables.txt": the variables of the filter.
#include <array>

#include "DiagnosticsTrace.h"
#include "DriverContent.h"
#include "IsDriverOpen.h"
#include "MemoryTextDump.h"
#include "ShowErrors.h"
#include "common/Trace.h"

namespace Filter::Diagnostics {

namespace {

constexpr std::uint32_t kVariables = 174;
/// compat 58: the one status that is not reported
constexpr std::int32_t kSilentFailure = -10017;

bool ReadFilterVariable(VtaCore::CDom &dom, vti_handle_t *handle, FilterVariable &variable) {
    const std::int32_t status = vti_get_varv(handle, &variable);
    return status != kSilentFailure && ShowErrors(dom, handle, L"GET_VARIABLE", status);
}

}  // namespace

bool AddDriverVariables(VtaCore::CDom &dom, vti_handle_t *handle, VtaCore::CZipOutputStream &zip) {
    Trace(kDiagnosticsTrace, "AddDriverVariables()");
    std::array<FilterVariable, kVariables> variables = {};
    for (std::uint32_t i = 0; i < kVariables; ++i)
        variables[i].index = i;
    MemoryTextDump dump;
    if (!IsDriverOpen(handle))
        return false;
    for (FilterVariable &variable : variables)
        if (!ReadFilterVariable(dom, handle, variable))
            return false;
    for (const FilterVariable &variable : variables)
        qb_dump_filter_variable(dump.Context(), &variable, 0);
    return dump.AddTo(zip, "vta_variables.txt");
}

}  // namespace Filter::Diagnostics
