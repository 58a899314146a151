// Iterations that sample the platform and the driver.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "IterationFixture.h"

namespace Health {

/// The functions that report the machine's load.
inline const std::set<std::string> kPlatform{
    "PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "PdhGetFormattedCounterValue",
    "PdhCloseQuery", "GetSystemInfo",  "GlobalMemoryStatusEx"};

class Sampling : public IterationFixture {
protected:
    /// The queries of the platform since the last call, with the sleeps.
    std::vector<std::string> TakePlatformCalls() {
        std::vector<std::string> calls;
        for (const Simulator::JournalEntry &entry : simulation().GetJournal().Take())
            if (kPlatform.contains(entry.function) || entry.function == "Sleep")
                calls.push_back(entry.function == "Sleep" ? "Sleep " + entry.arguments : entry.function);
        return calls;
    }

    /// The request that the driver received, as the one bit of it that is set.
    void ExpectMonitored(unsigned port, bool outbound) {
        std::vector<std::uint8_t> expected(16392);
        expected[0] = 1;
        expected[8 + (outbound ? 8192 : 0) + port / 32 * 4 + port % 32 / 8] = static_cast<std::uint8_t>(1 << port % 8);
        EXPECT_TRUE(driver().monitorRequest == expected) << "port " << port << ", outbound " << outbound;
    }
};

}  // namespace Health
