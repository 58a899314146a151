// The table of the host's numbers, of which a script sees only two.
#include "SystemHealth/HostMemory.h"

#include <cstring>
#include <iterator>

#include <gtest/gtest.h>

namespace {

TEST(HostMemoryTable, HasEightRowsOfWhichOnlyThoseOfTheMemoryGetAValue) {
    const struct {
        const char *name;
        const char *shortName;
        std::uint64_t unused;
        bool isFilled;
    } rows[] = {{"vmstat_phys_mem", "null", 0, true}, {"vmstat_runQ", "r", 0, false}, {"vmstat_avm", "avm", 0, false},
                {"vmstat_freemem", "fre", 0, true},   {"user_cpu", "us", 0, false},   {"sys_cpu", "sy", 15, false},
                {"idle_cpu", "id", 0, false},         {"wait_cpu", "wa", 0, false}};
    HostMemory memory;
    ASSERT_EQ(std::size(memory.vmStats), std::size(rows));
    ASSERT_TRUE(getMemoryMetrics(memory));
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(rows[i].name);
        EXPECT_STREQ(memory.vmStats[i].name, rows[i].name);
        EXPECT_STREQ(memory.vmStats[i].short_name, rows[i].shortName);
        EXPECT_EQ(memory.vmStats[i].unused, rows[i].unused);
        EXPECT_EQ(memory.vmStats[i].value != 0, rows[i].isFilled);
    }
    EXPECT_LE(memory.vmStats[vmstat_freemem].value, memory.vmStats[vmstat_phys_mem].value);
}

}  // namespace
