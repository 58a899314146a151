// Keys of connection metrics that are similar, and their hash.

#include <cstdint>
#include <string>
#include <vector>

#include "ConnMetricsFixture.h"
#include "ImportTable.h"
#include "fc/metrics/KeyHash.h"

namespace {

/// Sources of random bytes that replace the system's.
unsigned randomCalls = 0;
ULONG randomBytes = 0;
BOOLEAN WINAPI KnownBytes(void *buffer, ULONG size) {
    ++randomCalls;
    randomBytes = size;
    for (ULONG i = 0; i < size; ++i)
        static_cast<unsigned char *>(buffer)[i] = static_cast<unsigned char>(i * i * 31 + i * 17 + 5);
    return TRUE;
}
BOOLEAN WINAPI NoBytes(void *, ULONG) {
    ++randomCalls;
    return FALSE;
}

Simulator::Redirection RandomSource(BOOLEAN(WINAPI *source)(void *, ULONG)) {
    randomCalls = 0;
    return {GetModuleHandleW(L"fc.dll"), "SystemFunction036", reinterpret_cast<void *>(source)};
}

/// The module's hash of a key if it drew the known bytes: this program contains a copy of it, which draws them.
std::uint32_t KnownHash(const std::string &key) {
    const Simulator::Redirection source(GetModuleHandleW(nullptr), "SystemFunction036",
                                        reinterpret_cast<void *>(&KnownBytes));
    EXPECT_TRUE(source.Found());
    const unsigned callsOfModule = randomCalls;
    const std::uint32_t hash = HashKey(key);
    randomCalls = callsOfModule;
    return hash;
}

TEST_F(ConnMetrics, TheHashOfKeysUsesRandomBytesThatAreDrawnOnce) {
    const Simulator::Redirection source = RandomSource(&KnownBytes);
    ASSERT_TRUE(source.Found());
    lua.Run("fill(1, 100)");
    Fold();
    lua.Run("fill(1, 100)");
    EXPECT_EQ(randomCalls, 1U);
    EXPECT_EQ(randomBytes, 192U) << "the whole secret of the hash";
}

TEST_F(ConnMetrics, WithoutRandomBytesKeysAreStillCounted) {
    const Simulator::Redirection source = RandomSource(&NoBytes);
    lua.Run("fill(1, 1000) fill(1, 1000)");
    EXPECT_EQ(randomCalls, 1U);
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "1000 2000");
}

TEST_F(ConnMetrics, KeysWithEqualHashesAreDistinguishedWhereverTheyDiffer) {
    const Simulator::Redirection source = RandomSource(&KnownBytes);
    ASSERT_TRUE(source.Found());
    // Different within the prefix record, in its last word, after it, and before a long common suffix.
    lua.Run(R"(
        pairs_ = {
            {'key00020759', 'key00048516'},
            {('p'):rep(39) .. '000024231', ('p'):rep(39) .. '000041060'},
            {('p'):rep(48) .. '00111397', ('p'):rep(48) .. '00113274'},
            {'0000030001' .. ('q'):rep(60), '0000148801' .. ('q'):rep(60)},
            {'0000046370' .. ('r'):rep(250), '0000054004' .. ('r'):rep(250)},
            {'key26180', 'key100914'},
            {'key10861', ('p'):rep(39) .. '93624'},
            {('p'):rep(39) .. '6588', 'key47849'},
        }
    )");
    for (int pair = 1; pair <= 8; ++pair) {
        const std::string both = "pairs_[" + std::to_string(pair) + "]";
        EXPECT_EQ(KnownHash(lua.Eval(both + "[1]")), KnownHash(lua.Eval(both + "[2]"))) << both;
    }
    lua.Run(R"(
        for _, pair in ipairs(pairs_) do
            for round = 1, 3 do
                add(pair[1], 'key\t' .. pair[1], 1) add(pair[2], 'key\t' .. pair[2], 10)
            end
        end
        expected = {}
        for _, pair in ipairs(pairs_) do expected[pair[1]] = 3 expected[pair[2]] = 30 end
    )");
    EXPECT_EQ(randomCalls, 1U) << "the module's hash is the known one";
    Fold();
    lua.Run(
        "for _, row in ipairs(f.GetConnMetrics()) do assert(expected[row.key] == row.count, row.key) "
        "expected[row.key] = nil end assert(next(expected) == nil)");
}

TEST_F(ConnMetrics, KeysOfEveryLengthAreDistinguishedByOneByte) {
    lua.Run(R"(
        expected = {}
        local function count(key, n)
            add(key, 'key\t' .. key, n)
            expected[key] = (expected[key] or 0) + n
        end
        for length = 0, 200 do
            local key = ('k'):rep(length)
            for round = 1, 2 do
                count(key, 1)
                if length > 0 then
                    local at = (length * 7) % length + 1
                    count(key:sub(1, at - 1) .. 'x' .. key:sub(at + 1), 5)
                    count(key:sub(1, length - 1) .. 'y', 9)
                end
            end
        end
    )");
    Fold();
    lua.Run(
        "for _, row in ipairs(f.GetConnMetrics()) do assert(expected[row.key] == row.count, #row.key) "
        "expected[row.key] = nil end assert(next(expected) == nil)");
}

}  // namespace
