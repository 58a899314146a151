// Random machines for the model of the bindings: made from a number, told in words, and made smaller.
#pragma once

#include <string>
#include <vector>

#include "BindingsModel.h"

namespace Bindings {

/// The same number gives the same machine.
Machine RandomMachine(unsigned seed);
/// Line by line.
std::string Describe(const Machine &machine);
/// The machine with one thing less, for each thing that can go: for the search of the smallest that still fails.
std::vector<Machine> SmallerMachines(const Machine &machine);

}  // namespace Bindings
