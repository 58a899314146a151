// The command line of fc-host.
#pragma once

#include <optional>
#include <string>
#include <vector>

struct Options {
    std::vector<std::wstring> given;  ///< The names of the options on the command line.
    bool help = false;
    bool version = false;
    bool quiet = false;        ///< No traces, events or log lines on the console.
    bool interactive = false;  ///< A prompt instead of a script.
    unsigned fast = 0;         ///< How many times faster the simulated clock runs; 0: another clock.
    bool steps = false;        ///< A simulated clock that stands still unless all threads wait.
    std::vector<std::wstring> traces;
    std::wstring eventsFile;    ///< Empty: none.
    std::wstring reportFile;    ///< Empty: none.
    std::wstring settingsFile;  ///< Empty: settings are kept in memory.
    std::wstring policyFile;    ///< To check instead of running a script; empty: none.
    std::wstring configFile;    ///< The same for a vt_filter.conf.
    std::wstring script;
    std::vector<std::wstring> arguments;  ///< The script's.
};

/// @param arguments  without the program's own name.
/// @param error      says what is wrong and how to correct it, if nothing is returned.
std::optional<Options> ParseOptions(const std::vector<std::wstring> &arguments, std::wstring &error);

/// The output of --help.
const char *HelpText();
