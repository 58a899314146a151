// The system calls and the driver that an iteration of the health subsystem uses, at almost no cost, so that the
// module's own work remains. Each records the time, if enabled.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <windows.h>

#include "ImportTable.h"

namespace HealthStubs {

/// The stages of an iteration, in order.
enum Mark { Start, ConfigClosed, SampleBegun, SampleEnded, kMarks };

struct State {
    std::vector<std::string> configLines;  ///< Including their line feeds.
    bool notesTimes = false;
    std::array<double, kMarks> times{};  ///< Of the last iteration, by Now().
    unsigned opened = 0;                 ///< Files opened in total.
    unsigned written = 0;                ///< Texts.
};
State &TheState();

/// Replaces them in the module until the result is destroyed. Ends the program if the module lacks an import.
std::vector<Simulator::Redirection> PutUnder(HMODULE module);

}  // namespace HealthStubs
