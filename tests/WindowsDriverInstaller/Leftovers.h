// What a call of the module has left open.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Balance.h"

/// Gives all of it back, as far as the system can be given it back; memory stays.
/// @return how much there was of each kind.
std::map<std::string, int> TakeBack(const std::vector<Simulator::BalanceItem> &items);
