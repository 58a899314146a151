// A driver with 60,000 connections for the diagnostics, at almost no cost: its lines are ready except for the
// formatting by the reader's print function.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <windows.h>

#include "ImportTable.h"

namespace DiagnosticsStubs {

constexpr std::uint16_t kUdpEntries = 20'000;
constexpr std::uint16_t kTcpEntries = 40'000;
constexpr std::uint32_t kBlacklistBytes = 64 * 1024;
constexpr std::uint32_t kProfileBytes = 256 * 1024;
constexpr unsigned kStatisticsLines = 1532;

/// The text of one entry or one line of bytes, 64 bytes in hexadecimal.
const char *HexText();

// The lines of the four texts: each calls print(format, arguments...) for each line.

template <typename Print>
void PrintStatistics(const Print &print) {
    for (unsigned i = 0; i < kStatisticsLines; ++i)
        print("statistics[%u] = %u\n", i, i * i);
}

template <typename Print>
void PrintVariable(unsigned index, const Print &print) {
    print("variable[%u] = %u\n", index, index * index);
}

template <typename Print>
void PrintConnections(const Print &print) {
    for (unsigned i = 0; i < kUdpEntries; ++i)
        print("%s[%u] = %s\n", "udp", i, HexText());
    for (unsigned i = 0; i < kTcpEntries; ++i)
        print("%s[%u] = %s\n", "tcp", i, HexText());
}

template <typename Print>
void PrintBlacklist(const Print &print) {
    for (unsigned offset = 0; offset < kBlacklistBytes; offset += 64)
        print("%04x %s\n", offset, HexText());
}

struct State {
    bool packs = false;     ///< Whether the files reach the package.
    std::size_t files = 0;  ///< Files that were offered to it,
    std::size_t bytes = 0;  ///< and their size in bytes.
};
State &TheState();

/// Replaces the driver and the package in the module until the result is destroyed. Ends the program if the module
/// lacks an import.
std::vector<Simulator::Redirection> PutUnder(HMODULE module);

}  // namespace DiagnosticsStubs
