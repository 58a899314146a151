// Random machines for the model of the bindings: generated from a seed, described as text, and reduced.
#pragma once

#include <string>
#include <vector>

#include "BindingsModel.h"

namespace Bindings {

/// The same seed gives the same machine.
Machine RandomMachine(unsigned seed);
/// Line by line.
std::string Describe(const Machine &machine);
/// Every machine that has one thing less: to search for the smallest one that still fails.
std::vector<Machine> SmallerMachines(const Machine &machine);

}  // namespace Bindings
