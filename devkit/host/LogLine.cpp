#include "LogLine.h"

const char *LevelName(wxLogLevel level) {
    switch (level) {
        case wxLOG_FatalError:
            return "fatal";
        case wxLOG_Error:
            return "error";
        case wxLOG_Warning:
            return "warning";
        case wxLOG_Message:
            return "message";
        case wxLOG_Info:
            return "verbose";
        default:
            return nullptr;
    }
}
