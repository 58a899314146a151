// The system calls and the driver under an iteration of the health subsystem, at next to no cost, so that what
// remains is the module's own work. Each notes the time, if that is wanted.
#pragma once

#include <array>
#include <string>
#include <vector>

#include <windows.h>

#include "ImportTable.h"

namespace HealthStubs {

/// What an iteration comes by, in this order.
enum Mark { Start, ConfigClosed, SampleBegun, SampleEnded, kMarks };

struct State {
    std::vector<std::string> configLines;  ///< With their line feeds.
    bool notesTimes = false;
    std::array<double, kMarks> times{};  ///< Of the last iteration, by Now().
    unsigned opened = 0;                 ///< Files, since the beginning.
    unsigned written = 0;                ///< Texts.
};
State &TheState();

/// Replaces them in the module until the result goes. Ends the program if the module imports less than it should.
std::vector<Simulator::Redirection> PutUnder(HMODULE module);

}  // namespace HealthStubs
