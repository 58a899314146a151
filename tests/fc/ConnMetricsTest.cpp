// Counting, folding and draining connection metrics.

#include "CodePage.h"
#include "ConnMetricsFixture.h"
#include "ImportTable.h"

namespace {

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

TEST_F(ConnMetrics, AFullStagingMapStillCountsPresentKeysBeyondAsciiAndDropsOtherSpellings) {
    const std::string beyondAscii = CharacterInCodePage().narrow;
    lua_pushlstring(lua, beyondAscii.data(), beyondAscii.size());
    lua_setglobal(lua, "wide");
    lua.Run("fill(1, 9999) add(wide) add(wide, '', 5) add(wide .. wide) add('KEY00001') add(wide)");
    Fold();
    lua.Run("rows = f.GetConnMetrics()");
    EXPECT_EQ(lua.Eval("#rows"), "10000");
    EXPECT_EQ(lua.Eval("rows[10000].count"), "7");
    EXPECT_EQ(lua.Eval("sum(rows)"), "10006");
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

TEST_F(ConnMetrics, KeysBeyond16BitsAreOrderedByTheirSurrogates) {
    if (GetACP() != CP_UTF8)
        GTEST_SKIP() << "the code page has no character beyond 16 bits";
    // U+10000, U+10FFFF, U+D7FF and U+FFFD
    lua.Run(R"(for name, key in pairs{least = '\xF0\x90\x80\x80', greatest = '\xF4\x8F\xBF\xBF',
                                      before = '\xED\x9F\xBF', after = '\xEF\xBF\xBD'} do
        add(key, 'key\t' .. name)
    end)");
    Fold();
    lua.Run("keys = {} for i, row in ipairs(f.GetConnMetrics()) do keys[i] = row.key end");
    EXPECT_EQ(lua.Eval("table.concat(keys, ' ')"), "before least greatest after");
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

/// Tells the length of a converted text, and then does not convert it.
int WINAPI TellLengthAlone(UINT codePage, DWORD flags, const wchar_t *from, int length, char *to, int size,
                           const char *other, BOOL *usedOther) {
    return to == nullptr ? WideCharToMultiByte(codePage, flags, from, length, to, size, other, usedOther) : 0;
}

TEST_F(ConnMetrics, ATextThatCannotBeConvertedAfterAllIsEmpty) {
    const std::string text = "'name\\t" + CharacterInCodePage().narrow + "'";
    EXPECT_EQ(RowOf(text), "count=1 name=\"" + CharacterInCodePage().narrow + "\"");
    const Simulator::Redirection conversion(GetModuleHandleW(L"" FC_WX_DLL), "WideCharToMultiByte",
                                            reinterpret_cast<void *>(&TellLengthAlone));
    ASSERT_TRUE(conversion.Found());
    EXPECT_EQ(RowOf(text), "count=1 name=\"\"");
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

}  // namespace
