// The stand-in for vti: counters, variables, version, tables.
#include <cstring>
#include <memory>

#include "VtiTestSupport.h"

namespace {

constexpr int32_t kOutOfRange = -10002;
constexpr int32_t kInvalidRequest = -10003;

class VtiQueries : public OpenedDriver {};

std::unique_ptr<StatsRecord> StatsRequest() {
    auto record = std::make_unique<StatsRecord>();
    record->word0 = 12;
    record->word4 = 6;
    record->word12 = 7325;
    record->word16 = 1;
    record->regions = 64;
    record->layout0 = 293;
    record->layout1 = 21;
    record->layout2 = 1;
    record->layout3 = 32;
    record->firstAddress = record->first;
    record->secondAddress = record->second;
    record->thirdAddress = record->third;
    return record;
}

/// A print function that counts its calls in the context's word.
int CountLine(void *context, const char *, ...) {
    ++*static_cast<unsigned *>(static_cast<DumpContext *>(context)->word);
    return 0;
}

/// A header with space for entries after it.
struct ConnTrackTable {
    ConnTrackHeader head{3, 0, 0, 0, 0, 0, {}};
    std::array<std::array<uint8_t, 64>, 3> entries{};
};
static_assert(sizeof(ConnTrackTable) == 16 + 3 * 64);

Vti::Connection ConnectionOf(uint8_t byte) {
    Vti::Connection connection;
    connection.bytes.fill(byte);
    return connection;
}

}  // namespace

TEST_F(VtiQueries, StatisticsFillAllThreeRegionsRecognisably) {
    const auto record = StatsRequest();
    driver.statsLayout = {293, 22, 1};
    ASSERT_EQ(vti_get_stats(handle, record.get(), sizeof *record), 0) << Error();
    uint32_t last[3];
    std::memcpy(&last[0], record->first + sizeof record->first - 4, 4);
    std::memcpy(&last[1], record->second + sizeof record->second - 4, 4);
    std::memcpy(&last[2], record->third + sizeof record->third - 4, 4);
    EXPECT_EQ(last[0], 0x0100'0000U + 415);
    EXPECT_EQ(last[1], 0x0200'0000U + 41);
    EXPECT_EQ(last[2], 0x0300'0000U + 1073);
    EXPECT_EQ(record->layout1, 22);
}

TEST_F(VtiQueries, StatisticsRefuseAnyOtherRequestWord) {
    for (const unsigned offset : {0U, 4U, 8U, 12U, 16U, 20U, 24U, 26U, 28U, 30U, 40U, 48U, 56U}) {
        SCOPED_TRACE(offset);
        const auto record = StatsRequest();
        reinterpret_cast<uint8_t *>(record.get())[offset] ^= 1;
        EXPECT_EQ(vti_get_stats(handle, record.get(), sizeof *record), kInvalidRequest);
        EXPECT_EQ(record->first[0], 0);
        EXPECT_EQ(record->first[3], 0);
    }
}

TEST_F(VtiQueries, StatisticsRefuseACopiedRecord) {
    const auto record = StatsRequest();
    const auto copy = std::make_unique<StatsRecord>(*record);
    EXPECT_EQ(vti_get_stats(handle, copy.get(), sizeof *copy), kInvalidRequest);
    EXPECT_EQ(Error(), "the addresses of the statistics record are not its own regions");
}

TEST_F(VtiQueries, StatisticsRefuseAnotherSize) {
    const auto record = StatsRequest();
    EXPECT_EQ(vti_get_stats(handle, record.get(), sizeof *record - 1), kInvalidRequest);
}

TEST_F(VtiQueries, VariablesAreReadAndSetByIndex) {
    EXPECT_EQ(vti_set_var(handle, 173, 4'000'000'000U), 0);
    FilterVariable variable{};
    EXPECT_EQ(vti_get_var(handle, 173, &variable), 0);
    EXPECT_EQ(variable.index, 173U);
    EXPECT_EQ(variable.value, 4'000'000'000U);
    FilterVariable asked{173, 0};
    EXPECT_EQ(vti_get_varv(handle, &asked), 0);
    EXPECT_EQ(asked.value, 4'000'000'000U);
}

TEST_F(VtiQueries, VariablesEndAt173) {
    FilterVariable variable{174, 5};
    EXPECT_EQ(vti_get_varv(handle, &variable), kOutOfRange);
    EXPECT_EQ(vti_get_var(handle, 0xFFFF'FFFFU, &variable), kOutOfRange);
    EXPECT_EQ(Error(), "there is no filter variable 4294967295");
    EXPECT_EQ(variable.value, 5U);
}

TEST_F(VtiQueries, TheVersionFitsItsBuffer) {
    char buffer[113];
    std::memset(buffer, '#', sizeof buffer);
    driver.version = "3.14.0.7";
    EXPECT_EQ(vti_get_version(handle, buffer), 0);
    EXPECT_STREQ(buffer, "3.14.0.7");
    driver.version.assign(300, 'v');
    EXPECT_EQ(vti_get_version(handle, buffer), 0);
    EXPECT_EQ(std::string(buffer), std::string(111, 'v'));
    EXPECT_EQ(buffer[112], '#');
}

TEST_F(VtiQueries, ConnectionTotalsAreTheSumOfBothTables) {
    driver.udp.resize(2);
    driver.tcp.resize(5);
    ConnTrackHeader head{3, 0, 0, 0, 0, 0, {}};
    EXPECT_EQ(vti_get_conntrack(handle, &head, sizeof head, nullptr), 0);
    EXPECT_EQ(head.entry_ct, 7);
    driver.tcp.resize(70'000);
    head.entry_ct = 0;
    EXPECT_EQ(vti_get_conntrack(handle, &head, sizeof head, nullptr), 0);
    EXPECT_EQ(head.entry_ct, 65'535);
}

TEST_F(VtiQueries, ConnectionsOfAProtocolAreCopiedAsFarAsTheyFit) {
    driver.udp = {ConnectionOf(0xA1), ConnectionOf(0xA2), ConnectionOf(0xA3)};
    driver.tcp = {ConnectionOf(0xB1)};
    ConnTrackTable table;
    table.head.protocol = 17;
    table.head.entry_ct = 2;
    EXPECT_EQ(vti_get_conntrack(handle, &table.head, 16 + 2 * 64, nullptr), 0) << Error();
    EXPECT_EQ(table.head.entry_ct, 2);
    EXPECT_EQ(table.entries[1][63], 0xA2);
    EXPECT_EQ(table.entries[2][0], 0);
    table.head.protocol = 6;
    table.head.entry_ct = 3;
    EXPECT_EQ(vti_get_conntrack(handle, &table.head, sizeof table, nullptr), 0) << Error();
    EXPECT_EQ(table.head.entry_ct, 1);
    EXPECT_EQ(table.entries[0][0], 0xB1);
    EXPECT_EQ(table.entries[1][0], 0xA2);
}

TEST_F(VtiQueries, ConnectionsRefuseASizeThatDoesNotFitTheEntries) {
    ConnTrackTable table;
    table.head.protocol = 6;
    table.head.entry_ct = 3;
    EXPECT_EQ(vti_get_conntrack(handle, &table.head, sizeof table - 1, nullptr), kInvalidRequest);
    EXPECT_EQ(table.head.entry_ct, 3);
    table.head.protocol = 1;
    EXPECT_EQ(vti_get_conntrack(handle, &table.head, sizeof table, nullptr), kInvalidRequest);
}

TEST_F(VtiQueries, TheBlacklistReportsItsSizeFirst) {
    driver.blacklist = {1, 2, 3, 4, 5};
    std::vector<uint8_t> buffer(sizeof(BlacklistRecord) + 6, 0xEE);
    auto *record = reinterpret_cast<BlacklistRecord *>(buffer.data());
    record->bodySize = 0;
    EXPECT_EQ(vti_get_blacklist(handle, record), 0);
    EXPECT_EQ(record->bodySize, 5U);
    EXPECT_EQ(buffer[sizeof(BlacklistRecord)], 0xEE);
    EXPECT_EQ(vti_get_blacklist(handle, record), 0);
    EXPECT_EQ(buffer[sizeof(BlacklistRecord) + 4], 5);
    EXPECT_EQ(buffer[sizeof(BlacklistRecord) + 5], 0xEE);
}

TEST_F(VtiQueries, AnOverstatementIsClaimedAndNotCopied) {
    driver.overstatement = 7;
    driver.profile = {9, 8, 7, 6};
    std::array<uint32_t, 3> buffer{1, 0, 0};
    EXPECT_EQ(vti_get_profile_stats(handle, buffer.data()), 0);
    EXPECT_EQ(buffer, (std::array<uint32_t, 3>{8, 9, 0}));
    driver.tcp = {ConnectionOf(0xB1), ConnectionOf(0xB2)};
    ConnTrackTable table;
    table.head.protocol = 6;
    table.head.entry_ct = 1;
    EXPECT_EQ(vti_get_conntrack(handle, &table.head, 16 + 64, nullptr), 0);
    EXPECT_EQ(table.head.entry_ct, 8);
    EXPECT_EQ(table.entries[0][0], 0xB1);
    EXPECT_EQ(table.entries[1][0], 0);
}

TEST_F(VtiQueries, TheDriverMayChangeBetweenTwoCalls) {
    driver.onCall = [](Vti::Driver &changed, const std::string &call) {
        if (call == "vti_get_var(3)")
            changed.variables[3] = 5;
    };
    FilterVariable variable{3, 0};
    EXPECT_EQ(vti_get_varv(handle, &variable), 0);
    EXPECT_EQ(variable.value, 0U);
    EXPECT_EQ(vti_get_var(handle, 3, &variable), 0);
    EXPECT_EQ(variable.value, 5U);
}

TEST_F(VtiQueries, StatisticsKeepTheRequestAndPrintTheConfiguredLines) {
    driver.statsLines = {"100%\n", "end"};
    const auto record = StatsRequest();
    EXPECT_EQ(vti_get_stats(handle, record.get(), sizeof *record), 0);
    EXPECT_EQ(driver.statsAddress, reinterpret_cast<std::uintptr_t>(record.get()));
    ASSERT_EQ(driver.statsRequest.size(), 6192U);
    EXPECT_EQ(driver.statsRequest[0], 12);
    EXPECT_EQ(driver.statsRequest[64], 0) << "as it came in";
    unsigned lines = 0;
    DumpContext context{CountLine, &lines};
    qb_dump_stats(&context, record.get());
    EXPECT_EQ(lines, 6128U / 4 + 2);
}

TEST_F(VtiQueries, TheProfileNeverExceedsItsBuffer) {
    driver.profile = {9, 8, 7, 6};
    std::array<uint32_t, 3> buffer{};
    EXPECT_EQ(vti_get_profile_stats(handle, buffer.data()), 0);
    EXPECT_EQ(buffer[0], 4U);
    driver.profile.resize(100, 1);
    EXPECT_EQ(vti_get_profile_stats(handle, buffer.data()), 0);
    EXPECT_EQ(buffer, (std::array<uint32_t, 3>{4, 0x06070809, 0}));
}
