// A line of a log.
#pragma once

#include <string>

#include <wx/log.h>

/// In UTF-8.
struct LoggedLine {
    double time;        ///< Seconds since 1970, when it was written.
    const char *level;  ///< fatal, error, warning, message or verbose.
    std::string text;
};

/// One of the names of LoggedLine; null for the levels of debug builds.
const char *LevelName(wxLogLevel level);
