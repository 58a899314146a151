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
    // A handle that has been closed is deliberately handed on: the library's answers are not looked at.
    if (VtaCore::LogTraceIsEnabled(kDriverTrace)) {
        (void)vti_set_trace_level(block->handle, kTrace);
        (void)vti_set_trace_handler(block->handle, qb_trace_handler);
    } else {
        (void)vti_set_trace_level(block->handle, kTraceNothing);  // a callback that was set before stays
    }
    return 0;
}

std::int32_t qb_trace_handler(std::int32_t level, const char *source, const char *file, std::int32_t line,
                              const char *text) {
    // The two blanks and the line feed are part of the line.
    Trace(kDriverTrace, "%s/%d  | %s | %s:%d\n", LocaleText{source}, level, LocaleText{text}, LocaleText{file}, line);
    return 0;
}
