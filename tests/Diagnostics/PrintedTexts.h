// What the driver library prints about the driver's data, collected by code other than the module's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "vti_control.h"

/// A text as it is stored in a package: lines end with CR LF, and each byte beyond ASCII is that character of Latin-1
/// in UTF-8.
std::string AsPackedText(const std::string &printed);

// Each as it is stored in a package.
std::string PrintedStats(vti_handle_t *handle);
std::string PrintedVariables(const Vti::Driver &driver);
std::string PrintedConnections(const std::vector<Vti::Connection> &udp, const std::vector<Vti::Connection> &tcp);
std::string PrintedBlacklist(const std::vector<uint8_t> &body);
