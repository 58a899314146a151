// What a call of the module has left open, and the functions that release it.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Balance.h"

/// The kind of resource that the function releases; empty for any other function, and for those that cannot fail.
std::string_view KindReleasedBy(std::string_view function);

/// Releases the resource, if there is a function for its kind in the table; memory stays.
void Release(const Simulator::BalanceItem &item);

/// Releases all of it. @return how much there was of each kind.
std::map<std::string, int> TakeBack(const std::vector<Simulator::BalanceItem> &items);
