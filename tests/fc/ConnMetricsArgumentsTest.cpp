// The arguments of the connection metrics, and texts in the system's code page.

#include <algorithm>
#include <string>
#include <vector>

#include "CodePage.h"
#include "ConnMetricsFixture.h"
#include "ImportTable.h"

namespace {

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

}  // namespace
