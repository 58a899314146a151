// What a call of the module has left open.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "Balance.h"

/// Releases all of it, as far as that is possible; memory stays. @return how much there was of each kind.
std::map<std::string, int> TakeBack(const std::vector<Simulator::BalanceItem> &items);
