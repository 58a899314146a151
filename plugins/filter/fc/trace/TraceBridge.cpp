#include "TraceBridge.h"

#include "common/Trace.h"
#include "common/UserdataArguments.h"

namespace {

constexpr wchar_t kDriverTrace[] = L"VTI";
constexpr std::int32_t kTraceNothing = 0;
constexpr std::int32_t kTrace = 3;

}  // namespace

int setup_qbtrace(lua_State *L) {
    const DriverHandleBlock *const block = GetDriverHandleArg(L, 1);
    if (block == nullptr)
        return luaL_argerror(L, 1, "vti handle expected");
    // compat 4: passes the null word of a closed handle on to the library
    if (VtaCore::LogTraceIsEnabled(kDriverTrace)) {
        (void)vti_set_trace_level(block->handle, kTrace);
        (void)vti_set_trace_handler(block->handle, qb_trace_handler);
    } else {
        (void)vti_set_trace_level(block->handle, kTraceNothing);  // compat 5: leaves a callback that was set before
    }
    return 0;
}

std::int32_t qb_trace_handler(std::int32_t level, const char *source, const char *file, std::int32_t line,
                              const char *text) {
    // compat 6: two blanks and a line feed in the traced line
    Trace(kDriverTrace, "%s/%d  | %s | %s:%d\n", LocaleText{source}, level, LocaleText{text}, LocaleText{file}, line);
    return 0;
}
