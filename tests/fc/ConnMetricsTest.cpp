// Connection metrics, through SLB.filter on the module as it ships.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <wx/tokenzr.h>

#include "CodePage.h"
#include "ImportTable.h"
#include "ModuleFixture.h"
#include "SeededRandom.h"
#include "fc/metrics/KeyHash.h"

namespace {

class ConnMetrics : public ModuleFixture {
protected:
    ConnMetrics() {
        lua.Run(R"(
            f = SLB.filter
            function add(key, text, count) f.AddToConnMetrics(key, text or 'name\tvalue', count or 1) end
            function fill(first, last) for i = first, last do add(string.format('key%05d', i)) end end
            -- every field of a row, as one text
            function show(row)
                local names = {}
                for name in pairs(row) do names[#names + 1] = name end
                table.sort(names)
                for i, name in ipairs(names) do
                    local value = row[name]
                    names[i] = name .. '=' .. (type(value) == 'string' and '"' .. value .. '"' or tostring(value))
                end
                return table.concat(names, ' ')
            end
            function sum(rows) local n = 0 for _, row in ipairs(rows) do n = n + row.count end return n end
        )");
    }

    /// Advances the time far enough for a fold, and folds.
    void Fold() {
        AdvanceSeconds(61);
        lua.Run("f.UpdateConnMetrics()");
    }

    /// The rows as show() prints them, one per line.
    std::string Drain() {
        lua.Run("rows = f.GetConnMetrics() text = {} for i, row in ipairs(rows) do text[i] = show(row) end");
        return lua.Eval("table.concat(text, '\\n')");
    }

    /// The one row that the text gives with a count of 1.
    std::string RowOf(const std::string &luaText) {
        lua.Run("add('key', " + luaText + ")");
        Fold();
        return Drain();
    }
};

// ---- Counting

TEST_F(ConnMetrics, ACountWhoseLow32BitsAreZeroChangesNothing) {
    lua.Run("for _, n in ipairs{0, 0.5, -0.5, 4294967296, -4294967296, '0'} do add('key', 'a\\tb', n) end");
    Fold();
    EXPECT_EQ(Drain(), "");
    lua.Run("add('key', 'first\\t1', 5) for _, n in ipairs{0, 0.5, 4294967296} do add('key', 'second\\t2', n) end");
    Fold();
    EXPECT_EQ(Drain(), "count=5 first=\"1\"");
}

TEST_F(ConnMetrics, AZeroCountDoesNotKeepTheTextForLater) {
    lua.Run("add('key', 'early\\t1', 0) add('key', 'late\\t2', 1)");
    Fold();
    EXPECT_EQ(Drain(), "count=1 late=\"2\"");
}

TEST_F(ConnMetrics, MinusOneIsAddedAs4294967295) {
    lua.Run("add('old', '', 1) add('old', '', -1) add('young', '', -1)");
    Fold();
    EXPECT_EQ(Drain(), "count=0\ncount=4294967295");
}

TEST_F(ConnMetrics, CountsAreTruncatedTowardZeroAndTo32Bits) {
    lua.Run("add('a', '', 1.9) add('b', '', -1.9) add('c', '', 4294967297) add('d', '', 2^52 + 7) add('e', '', '3')");
    Fold();
    EXPECT_EQ(Drain(), "count=1\ncount=4294967295\ncount=1\ncount=7\ncount=3");
}

TEST_F(ConnMetrics, ANumberThatDoesNotFit64BitsIsNoData) {
    lua.Run("for _, n in ipairs{1/0, -1/0, 0/0, 1e300, -1e300, 2^63, -2^63} do add('key', '', n) end");
    Fold();
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, CountsWrapAt32BitsInBothMaps) {
    lua.Run("add('key', '', 4294967295) add('key', '', 3)");
    Fold();
    lua.Run("add('key', '', 4294967295)");
    Fold();
    EXPECT_EQ(Drain(), "count=1");
}

TEST_F(ConnMetrics, TwoAddsWithTheSameKeyKeepTheFirstTextAndSumTheCounts) {
    lua.Run("add('key', 'text\\tfirst', 2) add('key', 'text\\tsecond', 3)");
    Fold();
    EXPECT_EQ(Drain(), "count=5 text=\"first\"");
}

TEST_F(ConnMetrics, AFullStagingMapStillCountsPresentKeysAndDropsAbsentOnes) {
    lua.Run("fill(1, 10000) add('key00001') add('key10000') add('new') add('new', '', 7)");
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "10000");
    EXPECT_EQ(lua.Eval("sum(rows)"), "10002");
    EXPECT_EQ(lua.Eval("rows[1].count + rows[10000].count"), "4");
}

// ---- Folding

TEST_F(ConnMetrics, TheFirstFoldIsPossible61SecondsAfterLoading) {
    AdvanceSeconds(12345);
    const std::int64_t loaded = Time();
    Reload();
    lua.Run("f = SLB.filter add('key')");
    SetTime(loaded + 60);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "");
    SetTime(loaded + 61);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "count=1 name=\"value\"");
}

TEST_F(ConnMetrics, AFoldIsSkippedAt60SecondsAndMadeAt61) {
    Fold();
    lua.Run("add('key')");
    AdvanceSeconds(60);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "");
    AdvanceSeconds(1);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "count=1 name=\"value\"");
}

TEST_F(ConnMetrics, ASkippedFoldDoesNotUpdateTheTimeOfTheLastFold) {
    Fold();
    lua.Run("add('key')");
    for (int i = 0; i < 6; ++i) {
        AdvanceSeconds(10);
        lua.Run("f.UpdateConnMetrics()");
    }
    EXPECT_EQ(Drain(), "");
    AdvanceSeconds(1);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "count=1 name=\"value\"");
}

TEST_F(ConnMetrics, AFoldOfAnEmptyStagingMapUpdatesTheTimeOfTheLastFold) {
    Fold();
    AdvanceSeconds(61);
    lua.Run("f.UpdateConnMetrics() add('key')");
    AdvanceSeconds(60);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, AClockSetBackStopsFoldsUntilItHasCaughtUp) {
    Fold();
    lua.Run("add('key')");
    AdvanceSeconds(-100000);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "");
    AdvanceSeconds(100060);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "");
    AdvanceSeconds(1);
    lua.Run("f.UpdateConnMetrics()");
    EXPECT_EQ(Drain(), "count=1 name=\"value\"");
}

TEST_F(ConnMetrics, AFoldIntoAnEmptyResultMovesAllOfStaging) {
    lua.Run("add('a', 'x\\t1', 2) add('b', 'y\\t2', 3)");
    Fold();
    EXPECT_EQ(Drain(), "count=2 x=\"1\"\ncount=3 y=\"2\"");
}

TEST_F(ConnMetrics, AFoldIntoANonEmptyResultAddsCountsAndKeepsTheOlderText) {
    lua.Run("add('b', 'text\\told', 2)");
    Fold();
    lua.Run("add('b', 'text\\tyoung', 3) add('a', 'text\\tfirst', 1) add('c', 'text\\tlast', 1)");
    Fold();
    EXPECT_EQ(Drain(), "count=1 text=\"first\"\ncount=5 text=\"old\"\ncount=1 text=\"last\"");
}

TEST_F(ConnMetrics, AFoldEmptiesStagingSoThatCountsStartOver) {
    lua.Run("add('key', 'text\\told', 2)");
    Fold();
    EXPECT_EQ(Drain(), "count=2 text=\"old\"");
    lua.Run("add('key', 'text\\tyoung', 1)");
    Fold();
    EXPECT_EQ(Drain(), "count=1 text=\"young\"");
}

TEST_F(ConnMetrics, AtTheLimitTheFirstKeysInOrderGetTheLastPlacesAndTheOthersAreDropped) {
    lua.Run("fill(1, 9998)");
    Fold();
    lua.Run("for _, key in ipairs{'zzz', 'bbb', 'aaa'} do add(key, 'key\\t' .. key) end add('key00001', '', 5)");
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "10000");
    EXPECT_EQ(lua.Eval("rows[1].key .. ' ' .. rows[2].key"), "aaa bbb") << "the first of the three had room";
    EXPECT_EQ(lua.Eval("rows[3].count"), "6") << "a present key still counts";
    EXPECT_EQ(lua.Eval("rows[10000].key"), "nil") << "there was no room for zzz";
    Fold();
    EXPECT_EQ(Drain(), "") << "staging was emptied anyway";
}

// ---- Draining

TEST_F(ConnMetrics, WithoutAFoldTheResultIsAnEmptyTable) {
    lua.Run("add('key') rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("type(rows)"), "table");
    EXPECT_EQ(lua.Eval("next(rows)"), "nil");
    Fold();
    EXPECT_EQ(Drain(), "count=1 name=\"value\"") << "what was not folded yet is kept";
}

TEST_F(ConnMetrics, ASecondDrainWithNoFoldBetweenIsEmpty) {
    lua.Run("add('key')");
    Fold();
    EXPECT_NE(Drain(), "");
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, RowsAreOrderedByTheCharacterCodesOfTheirKeys) {
    const std::string last = CharacterInCodePage().narrow;
    lua.Run("for _, key in ipairs{'b', 'a', 'B', '', 'aa', '_', '" + last +
            "'} do add(key, 'key\\t<' .. key .. '>') end");
    Fold();
    EXPECT_EQ(Drain(),
              "count=1 key=\"<>\"\ncount=1 key=\"<B>\"\ncount=1 key=\"<_>\"\ncount=1 key=\"<a>\"\n"
              "count=1 key=\"<aa>\"\ncount=1 key=\"<b>\"\ncount=1 key=\"<" +
                  last + ">\"");
}

TEST_F(ConnMetrics, TheContentOfATextAffectsNeitherTheOrderNorTheIdentityOfItsKey) {
    const std::string wide = CharacterInCodePage().narrow;
    // A key and its text have the same encoding: each of these keys once with bytes, once with wide characters.
    lua.Run("wide = '" + wide + R"('
        for _, key in ipairs{'ab', 'a', 'b', 'abc', '', wide, 'a' .. wide} do
            local plain, other = 'key\t<' .. key .. '>', 'key\t<' .. key .. '>' .. wide
            add(key, key < 'ab' and other or plain, 1)
            add(key, plain, 2)
        end)");
    Fold();
    lua.Run("for _, key in ipairs{'b', 'a', wide} do add(key, 'wide\t' .. wide, 4) end add('aa', '')");
    Fold();
    lua.Run("counts = {} for i, row in ipairs(f.GetConnMetrics()) do counts[i] = row.count end");
    EXPECT_EQ(lua.Eval("table.concat(counts, ' ')"), "3 7 1 3 3 3 7 7") << "'', a, aa, ab, abc, a+wide, b, wide";
}

TEST_F(ConnMetrics, TheKeyIsNotReturnedToLua) {
    EXPECT_EQ(RowOf("'a\\tb'"), "a=\"b\" count=1");
}

TEST_F(ConnMetrics, ALineWithFlagsSetsTheWordAndAllTwelveBits) {
    EXPECT_EQ(RowOf("'flags\\t33\\nservice\\tweb'"),
              "cf_do_dpi=1 cf_nuagent_banned=0 cf_nuagent_fail_open=0 cf_nuagent_key_error=0 cf_nuagent_key_imported=0 "
              "cf_nuagent_key_not_found=0 cf_nuagent_throttled=0 cf_outbound_connection=0 cf_rsa_key_imported=0 "
              "cf_ssl_connection=1 cf_start_tls=0 cf_udp_connection=0 count=1 flags=33 service=\"web\"");
}

TEST_F(ConnMetrics, EachFlagBitHasItsField) {
    const char *const names[] = {"cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
                                 "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
                                 "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
                                 "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned"};
    for (int bit = 0; bit < 12; ++bit) {
        RowOf("'flags\\t" + std::to_string(1 << bit) + "'");
        for (int other = 0; other < 12; ++other)
            EXPECT_EQ(lua.Eval(std::string("rows[1].") + names[other]), other == bit ? "1" : "0")
                << bit << " " << other;
    }
}

TEST_F(ConnMetrics, NegativeFlagsSetEveryBitAndFurtherBitsSetNoField) {
    RowOf("'flags\\t-1'");
    EXPECT_EQ(lua.Eval("rows[1].flags"), "-1");
    EXPECT_EQ(lua.Eval("rows[1].cf_ssl_connection + rows[1].cf_nuagent_banned"), "2");
    RowOf("'flags\\t4096'");
    EXPECT_EQ(lua.Eval("rows[1].cf_ssl_connection + rows[1].cf_nuagent_banned"), "0");
}

TEST_F(ConnMetrics, ListedNamesBecomeNumbersAndAllOthersTexts) {
    EXPECT_EQ(RowOf("'pid\\t1\\ndst_port\\t443\\ntls_version\\t771\\ncipher\\t49195\\ncontainer_type\\t2\\nPID\\t1'"),
              "PID=\"1\" cipher=49195 container_type=2 count=1 dst_port=443 pid=1 tls_version=771");
}

TEST_F(ConnMetrics, ALineWithoutATabHasAnEmptyValue) {
    EXPECT_EQ(RowOf("'pid\\nother\\n'"), "count=1 other=\"\" pid=0");
}

TEST_F(ConnMetrics, ALineCalledCountIsOverwrittenByTheEntrysCount) {
    EXPECT_EQ(RowOf("'count\\t99\\na\\tb'"), "a=\"b\" count=1");
}

TEST_F(ConnMetrics, AnEmptyTextGivesARowWithOnlyTheCount) {
    EXPECT_EQ(RowOf("''"), "count=1");
    EXPECT_EQ(RowOf("'\\n\\n\\n'"), "count=1") << "empty lines are skipped";
}

TEST_F(ConnMetrics, OnlyTheFirstTabOfALineIsASeparator) {
    EXPECT_EQ(RowOf("'a\\tb\\tc\\n\\tno name'"), "=\"no name\" a=\"b\tc\" count=1");
}

TEST_F(ConnMetrics, OfTwoLinesWithTheSameNameTheLastWins) {
    EXPECT_EQ(RowOf("'a\\t1\\na\\t2\\npid\\t1\\npid\\t2'"), "a=\"2\" count=1 pid=2");
    RowOf("'cf_do_dpi\\tbefore\\nflags\\t0\\ncf_start_tls\\tafter'");
    EXPECT_EQ(lua.Eval("rows[1].cf_do_dpi"), "0");
    EXPECT_EQ(lua.Eval("rows[1].cf_start_tls"), "after");
}

TEST_F(ConnMetrics, ACarriageReturnIsPartOfTheValue) {
    EXPECT_EQ(RowOf("'a\\tb\\r\\npid\\t7\\r\\n'"), "a=\"b\r\" count=1 pid=7");
}

TEST_F(ConnMetrics, NumbersAreReadAsTheCRuntimeReadsThem) {
    for (const std::string value : {"0",
                                    "7",
                                    "007",
                                    "123456789",
                                    "1234567890",
                                    "2147483647",
                                    "2147483648",
                                    "4294967296",
                                    "99999999999999999999",
                                    "-1",
                                    "-2147483648",
                                    "-99999999999",
                                    "+5",
                                    "--5",
                                    " 12",
                                    "\v3",
                                    "12x",
                                    "x12",
                                    "0x10",
                                    "1e3",
                                    "1.9",
                                    " ",
                                    "",
                                    "\t5",
                                    "12 34"}) {
        RowOf("'pid\\t" + value + "\\nnext\\t8'");
        EXPECT_EQ(lua.Eval("rows[1].pid"), std::to_string(_wtoi(std::wstring(value.begin(), value.end()).c_str())))
            << "'" << value << "'";
    }
}

TEST_F(ConnMetrics, ANumberWithoutAValueIsNotReadFromTheNextLine) {
    EXPECT_EQ(RowOf("'pid\\t\\n5\\t6'"), "5=\"6\" count=1 pid=0");
    EXPECT_EQ(RowOf("'pid\\t \\n5'"), "5=\"\" count=1 pid=0");
}

TEST_F(ConnMetrics, ArgumentsOfUpdateAndGetAreIgnored) {
    lua.Run("add('key')");
    AdvanceSeconds(61);
    lua.Run("assert(select('#', f.UpdateConnMetrics(1, 'x', {})) == 0)");
    EXPECT_EQ(lua.Eval("select('#', f.GetConnMetrics(1, 'x', {}, print))"), "1");
    lua.Run("add('key')");
    Fold();
    EXPECT_EQ(lua.Eval("#f.GetConnMetrics(false)"), "1");
    EXPECT_EQ(lua.Eval("select('#', f.AddToConnMetrics('a', 'b', 1, 'more'))"), "0");
}

// ---- Arguments

TEST_F(ConnMetrics, AWrongArgumentRaisesTheUsualErrorAndLeavesTheMapsUnchanged) {
    const struct {
        const char *call;
        const char *error;
    } cases[] = {
        {"f.AddToConnMetrics()", "bad argument #1 to 'AddToConnMetrics' (string expected, got no value)"},
        {"f.AddToConnMetrics(nil, 'a', 1)", "bad argument #1 to 'AddToConnMetrics' (string expected, got nil)"},
        {"f.AddToConnMetrics({}, 'a', 1)", "bad argument #1 to 'AddToConnMetrics' (string expected, got table)"},
        {"f.AddToConnMetrics(true, 'a', 1)", "bad argument #1 to 'AddToConnMetrics' (string expected, got boolean)"},
        {"f.AddToConnMetrics('key', nil, 1)", "bad argument #2 to 'AddToConnMetrics' (string expected, got nil)"},
        {"f.AddToConnMetrics('key', print, 1)",
         "bad argument #2 to 'AddToConnMetrics' (string expected, got function)"},
        {"f.AddToConnMetrics('key', io.stdout, 1)",
         "bad argument #2 to 'AddToConnMetrics' (string expected, got userdata)"},
        {"f.AddToConnMetrics('key', 'a')", "bad argument #3 to 'AddToConnMetrics' (number expected, got no value)"},
        {"f.AddToConnMetrics('key', 'a', 'x')", "bad argument #3 to 'AddToConnMetrics' (number expected, got string)"},
        {"f.AddToConnMetrics('key', 'a', {})", "bad argument #3 to 'AddToConnMetrics' (number expected, got table)"},
        {"f.AddToConnMetrics('key', 'a', true)",
         "bad argument #3 to 'AddToConnMetrics' (number expected, got boolean)"},
    };
    lua.Run("add('key', 'kept\\tyes', 2)");
    for (const auto &[call, error] : cases)
        EXPECT_NE(lua.ErrorOf(call).find(error), std::string::npos) << call << " raised: " << lua.ErrorOf(call);
    Fold();
    EXPECT_EQ(Drain(), "count=2 kept=\"yes\"");
}

TEST_F(ConnMetrics, NumbersAreAcceptedAsTexts) {
    lua.Run("add(7, 8, 1) add('7', '9', 1)");
    Fold();
    EXPECT_EQ(Drain(), "8=\"\" count=2");
}

TEST_F(ConnMetrics, TextsAndKeysEndAtTheFirstNul) {
    lua.Run("add('key\\0one', 'a\\tb\\0c\\nd\\te') add('key\\0two') add('key')");
    Fold();
    EXPECT_EQ(Drain(), "a=\"b\" count=3");
}

TEST_F(ConnMetrics, EveryByteValueComesBackUnchanged) {
    std::string bytes = CharactersOfOneByte() + CharacterInCodePage().narrow;
    std::erase_if(bytes, [](char byte) { return byte == '\t' || byte == '\n'; });
    if (GetACP() == 1252) {
        EXPECT_EQ(bytes.size(), 254U) << "all, and one once more";
    }
    lua_pushlstring(lua, bytes.data(), bytes.size());
    lua_setglobal(lua, "bytes");
    lua.Run("add(bytes, 'name\\t' .. bytes) add(bytes, '') add('n', bytes .. '\\tvalue')");
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "2");
    EXPECT_EQ(lua.Eval("rows[1].name == bytes and rows[1].count == 2"), "true");
    EXPECT_EQ(lua.Eval("rows[2][bytes]"), "value");
}

TEST_F(ConnMetrics, KeysAndTextsOutsideTheCodePageAreEmpty) {
    const std::vector<std::string> odd{"k\xE9", "k\x81", "\xE4\xB8\x9C", "k\xFC\xFC"};
    const auto outside = std::count_if(odd.begin(), odd.end(), [](const auto &text) { return !IsInCodePage(text); });
    if (!TextsOutsideCodePage().empty()) {
        EXPECT_GT(outside, 1);
    }
    for (const std::string &text : odd)
        lua.Run("add('" + text + "', 'a\\tb') add('key of " + text + "', '" + text + "\\tvalue')");
    lua.Run("add('', 'a\\tb', 10)");
    Fold();
    lua.Run(
        "rows = f.GetConnMetrics() fields = 0 for i, row in ipairs(rows) do for _ in pairs(row) do"
        " fields = fields + 1 end end");
    // One row for the empty key and all those outside the code page, one for each other key.
    const std::size_t ordinary = odd.size() - static_cast<std::size_t>(outside);
    EXPECT_EQ(lua.Eval("#rows"), std::to_string(1 + 2 * ordinary));
    EXPECT_EQ(lua.Eval("rows[1].count"), std::to_string(10 + 2 * outside));
    EXPECT_EQ(lua.Eval("fields"), std::to_string(2 * (1 + 2 * ordinary)));
}

TEST_F(ConnMetrics, ATextOutsideTheCodePageGivesARowWithOnlyTheCount) {
    for (const CodePageText &text : TextsOutsideCodePage())
        EXPECT_EQ(RowOf("'name\\t" + text.narrow + "'"), "count=1");
    const std::string character = CharacterInCodePage().narrow;
    EXPECT_EQ(RowOf("'name\\t" + character + "'"), "count=1 name=\"" + character + "\"");
}

TEST_F(ConnMetrics, TextsAndKeysOfOneMebibyteAreKeptInFull) {
    lua.Run(R"(
        big = string.rep('k', 1024 * 1024)
        add(big .. '1', 'name\t' .. big) add(big .. '2', big .. '\tvalue') add(big .. '1', 'other\ttext')
    )");
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "2");
    EXPECT_EQ(lua.Eval("rows[1].name == big and rows[1].count == 2"), "true");
    EXPECT_EQ(lua.Eval("rows[2][big]"), "value");
}

TEST_F(ConnMetrics, ATextOfManyLinesMakesAsManyFields) {
    lua.Run("lines = {} for i = 1, 20000 do lines[i] = 'n' .. i .. '\\tv' .. i end");
    lua.Run("add('key', table.concat(lines, '\\n'))");
    Fold();
    lua.Run("row = f.GetConnMetrics()[1] n = 0 for _ in pairs(row) do n = n + 1 end");
    EXPECT_EQ(lua.Eval("n"), "20001");
    EXPECT_EQ(lua.Eval("row.n1 .. row.n20000"), "v1v20000");
}

// ---- Keys that are similar

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
        }
    )");
    for (int pair = 1; pair <= 5; ++pair) {
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

// ---- Threads

TEST_F(ConnMetrics, DrainsOnAnotherThreadLoseAndDuplicateNothing) {
    std::atomic<bool> finished{false};
    double drained = 0;
    std::thread drainer([&] {
        LuaState own;
        Open(own);
        while (!finished) {
            own.Run("n = 0 for _, row in ipairs(SLB.filter.GetConnMetrics()) do n = n + row.count end");
            drained += std::stod(own.Eval("n"));
        }
    });
    for (int round = 0; round < 300; ++round) {
        lua.Run("for i = 1, 50 do add('key' .. i % 70, '', 1) end");
        Fold();
    }
    finished = true;
    drainer.join();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(drained + std::stod(lua.Eval("sum(rows)")), 300 * 50);
}

// ---- What is left behind

TEST_F(ConnMetrics, NothingIsLeftAfterADrainOnceTheStateIsClosed) {
    const auto cycle = [this] {
        LuaState own;
        Open(own);
        own.Run("for i = 1, 10500 do SLB.filter.AddToConnMetrics('key' .. i, 'flags\\t1\\nname\\t\\233' .. i, 1) end");
        AdvanceSeconds(61);
        own.Run("SLB.filter.UpdateConnMetrics()");
        own.Run("for i = 1, 500 do SLB.filter.AddToConnMetrics('other' .. i, '', 1) end");
        AdvanceSeconds(61);
        own.Run("SLB.filter.UpdateConnMetrics() assert(#SLB.filter.GetConnMetrics() == 10000)");
    };
    cycle();  // what the libraries allocate once and keep
    const Simulator::BalanceSnapshot before = balance().Take();
    cycle();
    EXPECT_GT(balance().Take().sequence, before.sequence + 50000) << "allocations are counted";
    EXPECT_EQ(balance().Difference(before, balance().Take()), "");
}

TEST_F(ConnMetrics, ABadArgumentLeaksNothing) {
    const auto badCalls = [this] {
        EXPECT_NE(lua.ErrorOf("f.AddToConnMetrics('key', {}, 1)"), "");
        EXPECT_NE(lua.ErrorOf("f.AddToConnMetrics('key', 'a', 'x')"), "");
        lua_gc(lua, LUA_GCCOLLECT, 0);
    };
    badCalls();
    const Simulator::BalanceSnapshot before = balance().Take();
    badCalls();
    EXPECT_EQ(balance().Difference(before, balance().Take()), "");
}

/// A Lua allocator that fails from the given request on.
struct ShortMemory {
    int left = 0;
    static void *Allocate(void *self, void *block, size_t oldSize, size_t newSize) {
        if (newSize == 0) {
            std::free(block);
            return nullptr;
        }
        if (newSize > oldSize || !block) {
            int &left = static_cast<ShortMemory *>(self)->left;
            if (left == 0)
                return nullptr;
            --left;
        }
        return std::realloc(block, newSize);
    }
};

TEST_F(ConnMetrics, WhereverLuaRunsOutOfMemoryTheErrorIsRaisedAndNoRowIsLost) {
    int failures = 0;
    for (int requests = 0;; ++requests) {
        SCOPED_TRACE("requests " + std::to_string(requests));
        lua.Run("for i = 1, 20 do add('key' .. i, 'flags\\t1\\nname\\tvalue' .. i) end");
        Fold();
        const Simulator::BalanceSnapshot before = balance().Take();
        int status = LUA_OK;
        {
            LuaState own;
            Open(own);
            own.Run("get = SLB.filter.GetConnMetrics");
            ShortMemory memory{requests};
            void *data = nullptr;
            const lua_Alloc ordinary = lua_getallocf(own, &data);
            lua_getglobal(own, "get");
            lua_setallocf(own, &ShortMemory::Allocate, &memory);
            status = lua_pcall(own, 0, 1, 0);
            EXPECT_TRUE(status == LUA_OK || std::strcmp(lua_tostring(own, -1), "not enough memory") == 0);
            lua_setallocf(own, ordinary, data);
            lua_setglobal(own, "rows");
            if (status == LUA_OK) {
                EXPECT_EQ(own.Eval("#rows"), "20");
                for (int i = 1; i <= 20; ++i)
                    EXPECT_EQ(own.Eval("rows[" + std::to_string(i) + "].count"), std::to_string(failures + 1));
            }
        }
        for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take()))
            ADD_FAILURE() << item.size << " bytes are left by " << item.function;
        if (status == LUA_OK)
            break;
        ++failures;
    }
    EXPECT_GT(failures, 20);
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, WhicheverAllocationFailsInADrainTheErrorIsRaisedAndNoRowIsLost) {
    // Texts for which the C++ part needs memory: in another encoding, and numbers that are not plain.
    const std::string beyondAscii = CharacterInCodePage().narrow;
    lua_pushlstring(lua, beyondAscii.data(), beyondAscii.size());
    lua_setglobal(lua, "beyondAscii");
    lua.Run("text = 'pid\\t' .. (' '):rep(100) .. '7\\nname\\t' .. beyondAscii:rep(1000) .. '\\n' .. ('n'):rep(200)");
    lua.Run("for i = 1, 5 do add('key' .. i, text) add('plain' .. i, 'cipher\\t0000000000000000009') end");
    Fold();
    unsigned failures = 0;
    for (bool hit = true; hit; ++failures) {
        SCOPED_TRACE("allocation " + std::to_string(failures + 1));
        lua_getglobal(lua, "f");
        lua_getfield(lua, -1, "GetConnMetrics");
        lua_gc(lua, LUA_GCCOLLECT, 0);
        const Simulator::BalanceSnapshot before = balance().Take();
        const auto fault = balance().FailAllocation(failures + 1, nullptr, GetCurrentThreadId());
        const int status = lua_pcall(lua, 0, 1, 0);
        hit = fault->Hit();
        balance().CancelAllocationFaults();
        // Lua retries when it is short of memory: not every failure fails the drain.
        if (status == LUA_OK) {
            ASSERT_EQ(lua_rawlen(lua, -1), 10U);
            lua_settop(lua, 0);
            lua.Run("for i = 1, 5 do add('key' .. i, text) add('plain' .. i, 'cipher\\t0000000000000000009') end");
            Fold();
            continue;
        }
        EXPECT_STREQ(lua_tostring(lua, -1), "not enough memory");
        lua_settop(lua, 0);
        lua_gc(lua, LUA_GCCOLLECT, 0);
        EXPECT_LE(balance().Take().blocks, before.blocks);
    }
    EXPECT_GT(failures, 10U);
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "10 10");
    EXPECT_EQ(lua.Eval("rows[5].pid .. ' ' .. rows[10].cipher"), "7 9");
}

// ---- Interrupted drains

TEST_F(ConnMetrics, ADrainThatAFinalizerMakesFailLosesNoRow) {
    lua.Run("fill(1, 2000)");
    Fold();
    lua.Run("collectgarbage() setmetatable({}, {__gc = function() error('from a finalizer', 0) end})");
    EXPECT_EQ(lua.ErrorOf("f.GetConnMetrics()"), "error in __gc metamethod (from a finalizer)");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "2000 2000");
    EXPECT_EQ(Drain(), "");
}

TEST_F(ConnMetrics, ADrainThatAHookMakesFailLosesNoRow) {
    lua.Run(R"(
        -- The hook raises at the n-th event. When GetConnMetrics itself returns, the rows are out of its hands.
        function drain_with_hook(n)
            local seen = 0
            debug.sethook(function(event)
                local func = debug.getinfo(2, 'f').func
                if func == pcall or func == debug.sethook or (event == 'return' and func == f.GetConnMetrics) then
                    return
                end
                seen = seen + 1
                if seen == n then error('from a hook', 0) end
            end, 'cr')
            local ok, rows = pcall(f.GetConnMetrics)
            debug.sethook()
            return ok, rows
        end
        fill(1, 3)
    )");
    Fold();
    lua.Run(R"(
        failures = 0
        for n = 1, 100 do
            ok, rows = drain_with_hook(n)
            if ok then break end
            assert(rows == 'from a hook', rows)
            failures = failures + 1
        end
    )");
    EXPECT_EQ(lua.Eval("failures"), "3") << "at the calls of GetConnMetrics and of its builder, and when that returns";
    EXPECT_EQ(lua.Eval("ok and #rows .. ' ' .. sum(rows)"), "3 3");
}

TEST_F(ConnMetrics, AFinalizerMayUseTheModuleWithinADrain) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            within = #f.GetConnMetrics()
            add('key00001', 'name\tyoung', 5) add('aaa', 'name\tnew', 7)
            f.UpdateConnMetrics()
        end})
        rows = f.GetConnMetrics()
    )");
    EXPECT_EQ(lua.Eval("within .. ' ' .. #rows .. ' ' .. sum(rows)"), "0 2000 2000");
    EXPECT_EQ(Drain(), "count=7 name=\"new\"\ncount=5 name=\"young\"");
}

TEST_F(ConnMetrics, WhatWasFoldedDuringAFailedDrainIsAddedToTheRestoredRows) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            add('key00001', 'name\tyoung', 4294967295) add('aaa', 'name\tnew', 7) add('key00002', '', -2)
            f.UpdateConnMetrics()
            error('from a finalizer', 0)
        end})
    )");
    EXPECT_NE(lua.ErrorOf("f.GetConnMetrics()"), "");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "2001");
    EXPECT_EQ(lua.Eval("show(rows[1])"), "count=7 name=\"new\"");
    EXPECT_EQ(lua.Eval("show(rows[2])"), "count=0 name=\"value\"") << "the older text, and counts wrap";
    EXPECT_EQ(lua.Eval("show(rows[3])"), "count=4294967295 name=\"value\"");
}

TEST_F(ConnMetrics, RowsRestoredByAFailedDrainTakePrecedenceOverThoseFoldedMeanwhile) {
    lua.Run("fill(1, 9999)");
    Fold();
    AdvanceSeconds(61);
    lua.Run(R"(
        collectgarbage()
        setmetatable({}, {__gc = function()
            add('aab', 'key\taab') add('aaa', 'key\taaa') add('key00001', '', 1)
            f.UpdateConnMetrics()
            error('from a finalizer', 0)
        end})
    )");
    EXPECT_NE(lua.ErrorOf("f.GetConnMetrics()"), "");
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows .. ' ' .. sum(rows)"), "10000 10001");
    EXPECT_EQ(lua.Eval("rows[1].key .. ' ' .. rows[2].count"), "aaa 2") << "one place was left: the first in order";
}

TEST_F(ConnMetrics, ASlowFinalizerWithinADrainDelaysNoOtherThread) {
    lua.Run("fill(1, 2000)");
    Fold();
    AdvanceSeconds(61);
    static std::atomic<bool> within{false};
    static std::atomic<bool> finished{false};
    within = finished = false;
    lua_register(lua, "take_long", [](lua_State *) {
        within = true;
        for (int i = 0; i < 6'000 && !finished; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        return 0;
    });
    lua.Run("collectgarbage() setmetatable({}, {__gc = take_long})");
    std::thread other([this] {
        LuaState own;
        Open(own);
        while (!within)
            std::this_thread::yield();
        own.Run("f = SLB.filter f.AddToConnMetrics('other', '', 1) f.UpdateConnMetrics() rows = f.GetConnMetrics()");
        finished = true;
        EXPECT_EQ(own.Eval("#rows"), "1");
    });
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_TRUE(finished) << "the other thread waited for the finalizer";
    within = true;
    other.join();
    EXPECT_EQ(lua.Eval("#rows"), "2000");
}

TEST_F(ConnMetrics, ADrainOfManyLinesNeedsLittleMemoryBesideTheText) {
    constexpr std::size_t kBytes = 1024 * 1024;
    for (const std::string line : {"x\\n", "\\233\\n"}) {
        lua.Run("add('key', ('" + line + "'):rep(" + std::to_string(kBytes / 2) + "))");
        Fold();
        lua.Run("collectgarbage()");
        const std::size_t before = balance().Take().bytes;
        balance().ResetPeak();
        lua.Run("rows = f.GetConnMetrics()");
        EXPECT_LT(balance().Take().peakBytes - before, kBytes / 10) << line;
        EXPECT_EQ(lua.Eval("#rows"), "1");
    }
}

// ---- Code pages

/// The conversions of wxWidgets as they are with UTF-8 as the system's code page.
int WINAPI ToUtf8Page(UINT page, DWORD flags, const wchar_t *wide, int length, char *narrow, int room,
                      const char *standIn, BOOL *replaced) {
    if (page == CP_ACP && (flags != 0 || replaced)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    return WideCharToMultiByte(page == CP_ACP ? CP_UTF8 : page, flags, wide, length, narrow, room, standIn, replaced);
}
int WINAPI FromUtf8Page(UINT page, DWORD flags, const char *narrow, int length, wchar_t *wide, int room) {
    return MultiByteToWideChar(page == CP_ACP ? CP_UTF8 : page, flags, narrow, length, wide, room);
}

TEST_F(ConnMetrics, ANameOrValueOutsideTheCodePageDoesNotAffectTheOtherFields) {
    const HMODULE wx = GetModuleHandleW(L"" FC_WX_DLL);
    const Simulator::Redirection to(wx, "WideCharToMultiByte", reinterpret_cast<void *>(&ToUtf8Page));
    const Simulator::Redirection from(wx, "MultiByteToWideChar", reinterpret_cast<void *>(&FromUtf8Page));
    ASSERT_TRUE(to.Found() && from.Found());
    EXPECT_EQ(RowOf("'pid\\t7\\nservice\\tweb\\ncity\\tZ\\195\\188rich\\n\\195\\169\\tname'"),
              "=\"name\" city=\"\" count=1 pid=7 service=\"web\"");
}

// ---- Compared with a simple implementation

/// The row by a simple implementation: a tokenizer, one string for each name and value.
std::map<std::string, std::string> SlowRow(const std::string &text, unsigned count) {
    static const char *const bits[] = {"cf_ssl_connection",        "cf_udp_connection",       "cf_outbound_connection",
                                       "cf_rsa_key_imported",      "cf_nuagent_key_imported", "cf_do_dpi",
                                       "cf_nuagent_key_not_found", "cf_nuagent_key_error",    "cf_start_tls",
                                       "cf_nuagent_fail_open",     "cf_nuagent_throttled",    "cf_nuagent_banned"};
    std::map<std::string, std::string> row;
    wxStringTokenizer lines(wxString(text.c_str()), "\n", wxTOKEN_DEFAULT);
    while (lines.HasMoreTokens()) {
        const wxString line = lines.GetNextToken();
        wxString value;
        const wxString name = line.BeforeFirst('\t', &value);
        const std::string key(static_cast<const char *>(name.mb_str()));
        const int number = _wtoi(value.wc_str());
        if (name == "flags") {
            for (unsigned bit = 0; bit < 12; ++bit)
                row[bits[bit]] = std::to_string((static_cast<unsigned>(number) >> bit) & 1U);
        }
        if (name == "flags" || name == "pid" || name == "dst_port" || name == "tls_version" || name == "cipher" ||
            name == "container_type")
            row[key] = std::to_string(number);
        else
            row[key] = '"' + std::string(static_cast<const char *>(value.mb_str())) + '"';
    }
    row["count"] = std::to_string(count);
    return row;
}

TEST_F(ConnMetrics, RandomTextsGiveTheRowsOfASimpleImplementation) {
    std::mt19937 random = SeededRandom();
    SCOPED_TRACE(HowToRepeat());
    const std::string pieces[] = {"\n",       "\n",   "\t",   "\t",     "flags", "pid",       "cf_do_dpi", "count",
                                  "dst_port", "0",    "33",   "-1",     "4096",  " ",         "\r",        "name",
                                  "x",        "\xE4", "\xFF", "cipher", "12345", "9999999999"};
    std::uniform_int_distribution<std::size_t> which(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> length(0, 24);
    balance().Guard({});
    for (int round = 0; round < 300; ++round) {
        std::string text;
        for (int i = length(random); i > 0; --i)
            text += pieces[which(random)];
        lua_getglobal(lua, "add");
        lua_pushstring(lua, "key");
        lua_pushlstring(lua, text.data(), text.size());
        lua_call(lua, 2, 0);
        Fold();
        std::string expected;
        for (const auto &[name, value] : SlowRow(text, 1))
            expected += (expected.empty() ? "" : " ") + name + "=" + value;
        ASSERT_EQ(Drain(), expected) << testing::PrintToString(text);
    }
}

TEST_F(ConnMetrics, RandomTrafficGivesTheCountsOfASimpleModel) {
    std::mt19937 random = SeededRandom();
    SCOPED_TRACE(HowToRepeat());
    std::map<std::string, unsigned> staging, merged;
    const auto drained = [&] {
        std::string expected;
        for (const auto &[key, count] : merged)
            expected.append(expected.empty() ? "" : "\n")
                .append("count=" + std::to_string(count))
                .append(key.empty() ? "" : " k=\"" + key + "\"");
        merged.clear();
        return expected;
    };
    for (int step = 0; step < 5000; ++step) {
        const unsigned what = random() % 100;
        if (what < 95) {
            const std::string key = "k" + std::to_string(random() % 40) + (random() % 2 ? "" : "\xE9");
            const unsigned count = random() % 3;
            lua.Run("add('" + key + "', 'k\\t" + key + "', " + std::to_string(count) + ")");
            if (count != 0)
                staging[IsInCodePage(key) ? key : ""] += count;
        } else if (what < 98) {
            Fold();
            for (const auto &[key, count] : staging)
                merged[key] += count;
            staging.clear();
        } else {
            ASSERT_EQ(Drain(), drained()) << "step " << step;
        }
    }
}

}  // namespace
