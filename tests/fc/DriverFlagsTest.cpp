// The flags in the drivers' service keys, through SLB.filter on the test's own registry.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "vta_core_control.h"

namespace {

constexpr wchar_t kService[] = L"System\\CurrentControlSet\\Services\\qbimvta";
constexpr wchar_t kServiceParameters[] = L"System\\CurrentControlSet\\Services\\qbimvta\\Parameters";
constexpr wchar_t kCalloutParameters[] = L"System\\CurrentControlSet\\Services\\qbimwfp\\Parameters";
constexpr wchar_t kList[] = L"UncheckedIfs";
constexpr wchar_t kStopTime[] = L"LastTimeDriverStoppedByBLP";

using Messages = std::vector<std::string>;

/// One of the two number flags.
struct Flag {
    const char *name;
    const wchar_t *value;

    [[nodiscard]] std::string Get() const { return std::string("f.GetDriver") + name + "FromReg()"; }
    [[nodiscard]] std::string Set(const std::string &arguments) const {
        return std::string("f.SetDriver") + name + "ToReg(" + arguments + ")";
    }
};
constexpr Flag kFlags[] = {{"Checked", L"driverChecked"}, {"Hooked", L"driverHooked"}};

/// The service key exists, without values; the component "filter" is traced. In Lua: `f` for SLB.filter. No test may
/// leave a key open.
class DriverFlags : public ModuleFixture {
protected:
    DriverFlags() : ModuleFixture({.registry = true, .folders = false}) {
        registry().PutKey(HKEY_LOCAL_MACHINE, kService);
        lua.Run(R"(
            f = SLB.filter
            function list() return '[' .. table.concat(f.GetUncheckedIfc(), '|') .. ']' end
        )");
        VtaCore::Control::EnableTrace("*", true);
        (void)TakeTracedLines();
    }
    ~DriverFlags() override {
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kKey), 0U);
        VtaCore::Control::EnableTrace("*", false);
        (void)TakeTracedLines();
    }

    Simulator::RegistrySandbox &registry() { return simulation().GetRegistry(); }
    Simulator::Faults &faults() { return simulation().GetFaults(); }

    void PutNumber(const wchar_t *value, DWORD number) {
        registry().PutDword(HKEY_LOCAL_MACHINE, kService, value, number);
    }
    std::optional<DWORD> Number(const wchar_t *value) { return registry().Dword(HKEY_LOCAL_MACHINE, kService, value); }
    void PutList(const std::wstring &list) { registry().PutText(HKEY_LOCAL_MACHINE, kService, kList, list); }
    std::optional<std::wstring> List() { return registry().Text(HKEY_LOCAL_MACHINE, kService, kList); }
    void PutStopTime(const wchar_t *key, DWORD number) {
        registry().PutDword(HKEY_LOCAL_MACHINE, key, kStopTime, number);
    }
    void PutRaw(const wchar_t *value, DWORD type, const std::vector<std::uint8_t> &bytes) {
        registry().PutBytes(HKEY_LOCAL_MACHINE, kService, value, type, bytes);
    }
    /// The traced lines as component, function and message; each must name the source and a line.
    static Messages TakeTracedNames() {
        Messages lines;
        for (const TracedLine &line : TakeTracedLines()) {
            lines.push_back(line.component + " " + line.function + " " + line.message);
            EXPECT_EQ(line.file, "DriverFlags.cpp") << line.message;
            EXPECT_GT(line.line, 0) << line.message;
        }
        return lines;
    }
    std::string StopTimes() {
        lua.Run(
            "local r = table.pack(f.GetDriverStoppedByBLPTimestamp()) assert(r.n == 2) times = r[1] .. ' ' .. r[2]");
        return lua.Eval("times");
    }

    LogCollector log;
};

// ---- Numbers

TEST_F(DriverFlags, ANumberThatWasSetIsReadBack) {
    for (const Flag &flag : kFlags) {
        lua.Run(flag.Set("17"));
        EXPECT_EQ(Number(flag.value), 17U);
        EXPECT_EQ(lua.Eval(flag.Get()), "17");
    }
    EXPECT_EQ(
        registry().Tree(HKEY_LOCAL_MACHINE, kService),
        "[System\\CurrentControlSet\\Services\\qbimvta]\n\"driverChecked\" dword 17\n\"driverHooked\" dword 17\n");
}

TEST_F(DriverFlags, TheTwoNumbersAreIndependent) {
    lua.Run("f.SetDriverCheckedToReg(1) f.SetDriverHookedToReg(2)");
    EXPECT_EQ(lua.Eval("f.GetDriverCheckedFromReg() .. f.GetDriverHookedFromReg()"), "12");
}

TEST_F(DriverFlags, NumbersAreTruncatedTowardZero) {
    for (const Flag &flag : kFlags) {
        lua.Run(flag.Set("1.9"));
        EXPECT_EQ(Number(flag.value), 1U);
        lua.Run(flag.Set("-1.9"));
        EXPECT_EQ(Number(flag.value), 0xFFFFFFFFU);
        EXPECT_EQ(lua.Eval(flag.Get()), "-1") << "which can't be told from the default";
        lua.Run(flag.Set("-0.5"));
        EXPECT_EQ(Number(flag.value), 0U);
    }
}

TEST_F(DriverFlags, NumbersUpToTheLimitsOf32BitsAreStoredAndOthersBecomeTheMinimum) {
    const std::pair<const char *, const char *> cases[] = {
        {"2147483647", "2147483647"},  {"2147483647.9", "2147483647"}, {"-2147483648.9", "-2147483648"},
        {"2147483648", "-2147483648"}, {"1e300", "-2147483648"},       {"-1e300", "-2147483648"},
        {"math.huge", "-2147483648"},  {"0/0", "-2147483648"},         {"'0x10'", "16"},
    };
    for (const auto &[given, read] : cases) {
        lua.Run(kFlags[0].Set(given));
        EXPECT_EQ(lua.Eval("('%d'):format(" + kFlags[0].Get() + ")"), read) << given;
    }
}

TEST_F(DriverFlags, AStoredNumberWithTheHighBitSetIsNegative) {
    for (const Flag &flag : kFlags) {
        PutNumber(flag.value, 0x80000000U);
        EXPECT_EQ(lua.Eval("('%d'):format(" + flag.Get() + ")"), "-2147483648");
        PutNumber(flag.value, 0xFFFFFFFEU);
        EXPECT_EQ(lua.Eval(flag.Get()), "-2");
    }
}

TEST_F(DriverFlags, AMissingNumberIsMinusOneAndNothingIsTraced) {
    for (const Flag &flag : kFlags)
        EXPECT_EQ(lua.Eval(flag.Get()), "-1");
    EXPECT_EQ(StopTimes(), "-1 -1");
    EXPECT_TRUE(TakeTracedLines().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(DriverFlags, ANumberOfAnotherTypeCannotBeRead) {
    const std::pair<DWORD, std::vector<std::uint8_t>> values[] = {
        {REG_SZ, {'1', 0, 0, 0}},
        {REG_BINARY, {1, 0, 0, 0}},
        {REG_QWORD, {1, 0, 0, 0, 0, 0, 0, 0}},
        {REG_NONE, {}},
        {REG_SZ, {'1', 0, '2', 0, '3', 0, 0, 0}},
        {REG_MULTI_SZ, {0, 0}},
    };
    for (const auto &[type, bytes] : values) {
        for (const Flag &flag : kFlags) {
            PutRaw(flag.value, type, bytes);
            EXPECT_EQ(lua.Eval(flag.Get()), "-1") << "type " << type << ", " << bytes.size() << " bytes";
        }
        registry().PutBytes(HKEY_LOCAL_MACHINE, kCalloutParameters, kStopTime, type, bytes);
        EXPECT_EQ(StopTimes(), "-1 -1") << "type " << type;
    }
    EXPECT_TRUE(TakeTracedLines().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(DriverFlags, ASetterReplacesAValueOfAnotherType) {
    PutRaw(L"driverHooked", REG_SZ, {'1', 0, 0, 0});
    lua.Run("f.SetDriverHookedToReg(3)");
    EXPECT_EQ(Number(L"driverHooked"), 3U);
}

TEST_F(DriverFlags, AnArgumentThatIsNotANumberIsALuaErrorAndNothingIsStored) {
    for (const Flag &flag : kFlags) {
        for (const char *argument : {"", "nil", "'x'", "{}", "true"})
            EXPECT_NE(lua.ErrorOf(flag.Set(argument)).find("number expected"), std::string::npos) << argument;
        EXPECT_EQ(Number(flag.value), std::nullopt);
    }
    EXPECT_TRUE(TakeTracedLines().empty());
}

// ---- What all functions have in common

constexpr const char *kSetters[] = {"f.SetDriverCheckedToReg(1", "f.SetDriverHookedToReg(1", "f.SetUncheckedIfc({'a'}"};

TEST_F(DriverFlags, SettersReturnTheirLastArgument) {
    for (const std::string setter : kSetters) {
        SCOPED_TRACE(setter);
        EXPECT_EQ(lua.Eval("select('#', " + setter + "))"), "1");
        EXPECT_EQ(lua.Eval("select('#', " + setter + ", 2, nil))"), "1");
        EXPECT_EQ(lua.Eval(setter + ", 'second')"), "second");
        EXPECT_EQ(lua.Eval(setter + ", 'second', false)"), "false");
    }
    EXPECT_EQ(lua.Eval("f.SetDriverCheckedToReg(1.5)"), "1.5") << "the number as passed";
    EXPECT_EQ(lua.Eval("type(f.SetDriverHookedToReg('7'))"), "string");
    lua.Run("t = {'a', 2} assert(f.SetUncheckedIfc(t) == t and type(t[2]) == 'number')");
}

TEST_F(DriverFlags, SettersReturnTheirLastArgumentEvenWhenNothingIsWritten) {
    for (const std::string setter : kSetters) {
        (void)faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
        EXPECT_EQ(lua.Eval(setter + ", 'last')"), "last");
        faults().Clear();
    }
    registry().Remove(HKEY_LOCAL_MACHINE, kService);
    for (const std::string setter : kSetters)
        EXPECT_EQ(lua.Eval(setter + ", 'last')"), "last");
}

TEST_F(DriverFlags, LeaveTheLuaStackBalanced) {
    const std::pair<const char *, int> functions[] = {
        {"GetDriverCheckedFromReg", 1}, {"GetDriverHookedFromReg", 1},
        {"GetUncheckedIfc", 1},         {"GetDriverStoppedByBLPTimestamp", 2},
        {"SetDriverCheckedToReg", 0},   {"SetDriverHookedToReg", 0},
        {"SetUncheckedIfc", 0},
    };
    PutList(L"a,b");
    for (const auto &[name, pushes] : functions) {
        lua.Run(std::string("called = f.") + name);
        lua_getglobal(lua, "called");
        const lua_CFunction function = lua_tocfunction(lua, -1);
        lua_settop(lua, 0);
        if (std::strcmp(name, "SetUncheckedIfc") == 0)
            lua_newtable(lua);
        else
            lua_pushinteger(lua, 1);
        lua_pushliteral(lua, "below");
        EXPECT_EQ(function(lua), std::max(pushes, 1)) << name;
        EXPECT_EQ(lua_gettop(lua), 2 + pushes) << name;
        lua_settop(lua, 0);
    }
}

TEST_F(DriverFlags, WithoutTheServiceKeySettersWriteNothingAndGettersReturnTheirDefaults) {
    registry().Remove(HKEY_LOCAL_MACHINE, kService);
    const std::string before = registry().Tree(HKEY_LOCAL_MACHINE);
    lua.Run("f.SetDriverCheckedToReg(1) f.SetDriverHookedToReg(1) f.SetUncheckedIfc {'a', 'b'}");
    EXPECT_EQ(registry().Tree(HKEY_LOCAL_MACHINE), before);
    EXPECT_EQ(TakeTracedMessages(), Messages{"Set ifList: a,b"});
    EXPECT_EQ(lua.Eval("f.GetDriverCheckedFromReg() .. ' ' .. f.GetDriverHookedFromReg() .. list()"), "-1 -1[]");
    EXPECT_EQ(StopTimes(), "-1 -1");
    EXPECT_TRUE(TakeTracedLines().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(DriverFlags, GettersIgnoreArguments) {
    PutNumber(L"driverChecked", 1);
    PutNumber(L"driverHooked", 2);
    PutList(L"a");
    PutStopTime(kCalloutParameters, 3);
    EXPECT_EQ(lua.Eval("f.GetDriverCheckedFromReg({}, 'x') .. f.GetDriverHookedFromReg(nil)"), "12");
    EXPECT_EQ(lua.Eval("table.concat(f.GetUncheckedIfc(1, 2, 3))"), "a");
    EXPECT_EQ(lua.Eval("table.concat({f.GetDriverStoppedByBLPTimestamp(print)}, ' ')"), "-1 3");
}

TEST_F(DriverFlags, EachFunctionTracesWithItsOwnName) {
    PutStopTime(kServiceParameters, 5);
    PutStopTime(kCalloutParameters, 0xFFFFFFFA);
    lua.Run(R"(
        f.SetDriverCheckedToReg(1) f.GetDriverCheckedFromReg() f.SetDriverHookedToReg(-7) f.GetDriverHookedFromReg()
        f.SetUncheckedIfc {'a', 'b'} f.GetUncheckedIfc() f.GetDriverStoppedByBLPTimestamp())");
    EXPECT_EQ(TakeTracedNames(),
              (Messages{"filter GetDriverCheckedFromReg Get last driverChecked value: 1",
                        "filter GetDriverHookedFromReg Get last driverHooked value: -7",
                        "filter SetUncheckedInterface Set ifList: a,b", "filter GetUncheckedInterface Get IfList: a,b",
                        "filter GetDriverStoppedByBLPTimestamp Get last vta last value: 5",
                        "filter GetDriverStoppedByBLPTimestamp Get last wfp last value: -6"}));
}

TEST_F(DriverFlags, NothingIsTracedWhileTheComponentIsDisabled) {
    VtaCore::Control::EnableTrace("filter", false);
    lua.Run("f.SetDriverCheckedToReg(1) f.GetDriverCheckedFromReg() f.SetUncheckedIfc {'a'} f.GetUncheckedIfc()");
    EXPECT_TRUE(TakeTracedLines().empty());
    EXPECT_EQ(Number(L"driverChecked"), 1U);
}

TEST_F(DriverFlags, NothingIsCachedBetweenCalls) {
    lua.Run("f.SetDriverCheckedToReg(1) f.SetUncheckedIfc {'a'}");
    PutNumber(L"driverChecked", 2);
    PutList(L"b");
    EXPECT_EQ(lua.Eval("f.GetDriverCheckedFromReg() .. list()"), "2[b]");
    registry().Remove(HKEY_LOCAL_MACHINE, kService);
    EXPECT_EQ(lua.Eval("f.GetDriverCheckedFromReg() .. list()"), "-1[]");
}

// ---- Times

TEST_F(DriverFlags, TheTimesOfBothDriversAreReadFromTheirOwnKeys) {
    PutStopTime(kServiceParameters, 11);
    PutStopTime(kCalloutParameters, 22);
    EXPECT_EQ(StopTimes(), "11 22");
}

TEST_F(DriverFlags, OneDriverMayHaveATimeWithoutTheOther) {
    PutStopTime(kCalloutParameters, 22);
    EXPECT_EQ(StopTimes(), "-1 22");
    EXPECT_EQ(TakeTracedMessages(), Messages{"Get last wfp last value: 22"});
    registry().Remove(HKEY_LOCAL_MACHINE, kCalloutParameters);
    PutStopTime(kServiceParameters, 11);
    EXPECT_EQ(StopTimes(), "11 -1");
    EXPECT_EQ(TakeTracedMessages(), Messages{"Get last vta last value: 11"});
}

TEST_F(DriverFlags, TheTimesAreNotReadFromTheServiceKeysThemselves) {
    PutNumber(kStopTime, 5);
    registry().PutKey(HKEY_LOCAL_MACHINE, kServiceParameters);
    EXPECT_EQ(StopTimes(), "-1 -1");
}

// ---- The list

TEST_F(DriverFlags, ItemsAreStoredAsOneTextWithCommasAndComeBackInOrder) {
    lua.Run("f.SetUncheckedIfc {'a', 'b', 'c'}");
    EXPECT_EQ(List(), L"a,b,c");
    EXPECT_EQ(lua.Eval("list()"), "[a|b|c]");
}

TEST_F(DriverFlags, AnEmptyTableStoresAnEmptyTextAndComesBackEmpty) {
    PutList(L"before");
    lua.Run("f.SetUncheckedIfc {}");
    EXPECT_EQ(List(), L"");
    EXPECT_EQ(lua.Eval("list()"), "[]");
    EXPECT_EQ(TakeTracedMessages(), (Messages{"Set ifList: ", "Get IfList: "}));
}

TEST_F(DriverFlags, AnItemEndsAtItsFirstZeroAndAffectsNoOther) {
    lua.Run("f.SetUncheckedIfc {'a\\0b', '\\0', '\\0c', 'd\\0', 'e'}");
    EXPECT_EQ(List(), L"a,,,d,e");
    EXPECT_EQ(TakeTracedMessages(), Messages{"Set ifList: a,,,d,e"});
    EXPECT_EQ(lua.Eval("list()"), "[a|d|e]");
}

TEST_F(DriverFlags, AnItemWithACommaComesBackAsTwo) {
    lua.Run("f.SetUncheckedIfc {'a,b', 'c'}");
    EXPECT_EQ(lua.Eval("list()"), "[a|b|c]");
}

TEST_F(DriverFlags, DoubledLeadingAndTrailingCommasGiveOnlyTheNonEmptyItems) {
    for (const wchar_t *stored : {L",a,,b,", L",,,a,b", L"a,b,,,", L"a,,,,,b"}) {
        PutList(stored);
        EXPECT_EQ(lua.Eval("list()"), "[a|b]") << wxString(stored).utf8_str();
    }
    for (const wchar_t *stored : {L"", L",", L",,,"}) {
        PutList(stored);
        EXPECT_EQ(lua.Eval("list()"), "[]") << wxString(stored).utf8_str();
    }
}

TEST_F(DriverFlags, SpacesBelongToItems) {
    PutList(L" a , b,\t");
    EXPECT_EQ(lua.Eval("list()"), "[ a | b|\t]");
}

TEST_F(DriverFlags, NumbersAreItemsAndOtherTypesLeaveADoubledComma) {
    lua.Run("f.SetUncheckedIfc {'a', 1.5, true, {'nested'}, print, 7}");
    EXPECT_EQ(List(), L"a,1.5,,,,7");
    EXPECT_EQ(lua.Eval("list()"), "[a|1.5|7]");
}

TEST_F(DriverFlags, HolesCountAsEmptyItemsUpToTheLengthOfTheTable) {
    lua.Run("f.SetUncheckedIfc {nil, 'b', nil, 'd'}");
    EXPECT_EQ(List(), L",b,,d");
    EXPECT_EQ(lua.Eval("list()"), "[b|d]");
}

TEST_F(DriverFlags, TheTableIsReadRawAndOtherFieldsAreIgnored) {
    lua.Run(R"(f.SetUncheckedIfc(setmetatable({'a', nil, 'c', name = 'x', [0] = 'zero'},
        {__len = function() return 5 end, __index = function() return 'made up' end})))");
    EXPECT_EQ(List(), L"a,,c");
}

TEST_F(DriverFlags, ItemsAreUtf8InLuaAndWideInTheRegistry) {
    lua.Run("f.SetUncheckedIfc {'Büro', '\xE7\xB6\xB2', '\xF0\x9F\x98\x80'}");
    EXPECT_EQ(List(), L"B\u00FCro,\u7DB2,\xD83D\xDE00");
    EXPECT_EQ(lua.Eval("list()"), "[Büro|\xE7\xB6\xB2|\xF0\x9F\x98\x80]");
}

TEST_F(DriverFlags, AnItemThatIsNotUtf8AddsNothing) {
    lua.Run("f.SetUncheckedIfc {'a', '\\255\\254', 'b\\195', 'c'}");
    EXPECT_EQ(List(), L"a,,,c");
    EXPECT_EQ(lua.Eval("list()"), "[a|c]");
}

TEST_F(DriverFlags, AStoredItemIsReadUpToItsFirstZero) {
    PutRaw(kList, REG_SZ, {'a', 0, 0, 0, 'b', 0, ',', 0, 'c', 0, 0, 0});
    EXPECT_EQ(lua.Eval("list()"), "[a|c]");
}

TEST_F(DriverFlags, AStoredLoneSurrogateDoesNotAffectTheOtherItems) {
    PutList(L"a,\xD800,b\xDC00,c");
    const std::string read = lua.Eval("list()");
    EXPECT_EQ(read.substr(0, 3), "[a|");
    EXPECT_EQ(read.substr(read.size() - 3), "|c]");
}

TEST_F(DriverFlags, TheListMayLackItsTerminatorOrEndInHalfACharacter) {
    PutRaw(kList, REG_SZ, {'a', 0, ',', 0, 'b', 0});
    EXPECT_EQ(lua.Eval("list()"), "[a|b]");
    PutRaw(kList, REG_SZ, {'a', 0, ',', 0, 'b', 0, 'c'});
    EXPECT_EQ(lua.Eval("list()").substr(0, 5), "[a|b]");
    PutRaw(kList, REG_SZ, {});
    EXPECT_EQ(lua.Eval("list()"), "[]");
}

TEST_F(DriverFlags, AListOfAnotherTypeIsAnEmptyTable) {
    for (const DWORD type : {DWORD{REG_BINARY}, DWORD{REG_MULTI_SZ}, DWORD{REG_DWORD}, DWORD{REG_NONE}}) {
        PutRaw(kList, type, {'a', 0, 0, 0});
        EXPECT_EQ(lua.Eval("list()"), "[]") << "type " << type;
    }
    EXPECT_TRUE(TakeTracedLines().empty());
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(DriverFlags, PercentSignsInTheListAreUnchanged) {
    lua.Run("f.SetUncheckedIfc {'%s%n', '100%'}");
    EXPECT_EQ(lua.Eval("list()"), "[%s%n|100%]");
    EXPECT_EQ(TakeTracedMessages(), (Messages{"Set ifList: %s%n,100%", "Get IfList: %s%n,100%"}));
}

TEST_F(DriverFlags, AHundredThousandItemsAreReadBack) {
    lua.Run(R"(
        local names = {}
        for i = 1, 100000 do names[i] = 'if' .. i end
        f.SetUncheckedIfc(names)
        local read = f.GetUncheckedIfc()
        assert(#read == #names)
        for i = 1, #names do assert(read[i] == names[i]) end)");
}

TEST_F(DriverFlags, AnArgumentThatIsNotATableIsALuaErrorAndNothingIsStored) {
    for (const char *argument : {"", "nil", "'a'", "1", "print", "io.stdout"})
        EXPECT_NE(lua.ErrorOf(std::string("f.SetUncheckedIfc(") + argument + ")")
                      .find("bad argument #1 to 'SetUncheckedIfc' (lua table expected)"),
                  std::string::npos)
            << argument;
    EXPECT_EQ(List(), std::nullopt);
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(DriverFlags, TheArgumentTableIsNotModified) {
    lua.Run("t = {'a', 5, false} f.SetUncheckedIfc(t) assert(#t == 3 and t[1] == 'a' and t[2] == 5 and t[3] == false)");
}

// ---- Failures

const std::string kUnwritable = "Unable to write HKLM\\System\\CurrentControlSet\\Services\\qbimvta\\";

TEST_F(DriverFlags, AKeyThatCannotBeOpenedForWritingIsTracedByKeyAndValue) {
    for (const auto &[setter, value] : {std::pair{kSetters[0], "driverChecked"}, {kSetters[1], "driverHooked"}}) {
        (void)faults().FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);  // the first call checks whether it exists
        lua.Run(std::string(setter) + ")");
        faults().Clear();
        EXPECT_EQ(TakeTracedMessages(), Messages{kUnwritable + value});
    }
    (void)faults().FailNth("RegOpenKeyExW", 2, ERROR_ACCESS_DENIED);
    lua.Run("f.SetUncheckedIfc {'a'}");
    EXPECT_EQ(TakeTracedMessages(), (Messages{"Set ifList: a", kUnwritable + "UncheckedIfs"}));
    EXPECT_EQ(registry().Tree(HKEY_LOCAL_MACHINE, kService), "[System\\CurrentControlSet\\Services\\qbimvta]\n");
}

TEST_F(DriverFlags, AFailedWriteIsTracedByKeyAndValueWithTheNameOfTheSetter) {
    (void)faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
    lua.Run("f.SetDriverCheckedToReg(1)");
    EXPECT_EQ(TakeTracedNames(), Messages{"filter SetDriverCheckedToReg " + kUnwritable + "driverChecked"});
    lua.Run("f.SetDriverHookedToReg(1)");
    EXPECT_EQ(TakeTracedNames(), Messages{"filter SetDriverHookedToReg " + kUnwritable + "driverHooked"});
    lua.Run("f.SetUncheckedIfc {'a'}");
    EXPECT_EQ(TakeTracedNames(), (Messages{"filter SetUncheckedInterface Set ifList: a",
                                           "filter SetUncheckedInterface " + kUnwritable + "UncheckedIfs"}));
}

TEST_F(DriverFlags, AFailedWriteIsTracedWithTheOneLineThatTracesIt) {
    (void)faults().FailEvery("RegSetValueExW", ERROR_ACCESS_DENIED);
    lua.Run("f.SetUncheckedIfc {'a'} f.SetDriverCheckedToReg(1) f.SetDriverHookedToReg(1)");
    std::vector<int> lines;
    for (const TracedLine &line : TakeTracedLines())
        lines.push_back(line.line);
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_NE(lines[0], lines[1]) << "that of the list, which is not the write's";
    EXPECT_EQ(lines[1], lines[2]);
    EXPECT_EQ(lines[1], lines[3]);
}

/// Runs the code once for each of its registry calls, with that call failing.
/// @param check  called after each run, with the call's number from 1.
template <class Check>
unsigned FailEachRegistryCall(Simulator::Faults &faults, LuaState &lua, const std::string &code, Check check) {
    for (unsigned nth = 1;; ++nth) {
        const auto plan = faults.FailNthOf({"RegOpenKeyExW", "RegQueryValueExW", "RegSetValueExW", "RegCreateKeyExW"},
                                           nth, ERROR_ACCESS_DENIED);
        lua.Run(code);
        const bool hit = plan->Hit();
        faults.Clear();
        if (!hit)
            return nth - 1;
        check(nth);
    }
}

TEST_F(DriverFlags, AGetterReturnsItsDefaultWhicheverRegistryCallFails) {
    PutNumber(L"driverChecked", 1);
    PutNumber(L"driverHooked", 1);
    PutList(L"a,b");
    for (const std::string &getter : {kFlags[0].Get(), kFlags[1].Get(), std::string("list()")}) {
        const unsigned calls = FailEachRegistryCall(faults(), lua, "result = " + getter, [&](unsigned nth) {
            EXPECT_EQ(lua.Eval("result"), getter == "list()" ? "[]" : "-1") << getter << ", call " << nth;
            EXPECT_TRUE(TakeTracedLines().empty()) << getter << ", call " << nth;
        });
        EXPECT_GE(calls, 2U) << getter;
        EXPECT_EQ(TakeTracedLines().size(), 1U) << getter << " without a failure";
    }
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(DriverFlags, AFailureToReadOneDriversTimeDoesNotAffectTheOthers) {
    PutStopTime(kServiceParameters, 11);
    PutStopTime(kCalloutParameters, 22);
    const std::string code = "times = table.concat({f.GetDriverStoppedByBLPTimestamp()}, ' ')";
    std::vector<std::string> results;
    const unsigned calls =
        FailEachRegistryCall(faults(), lua, code, [&](unsigned) { results.push_back(lua.Eval("times")); });
    ASSERT_GE(calls, 4U);
    for (unsigned call = 0; call < calls; ++call)
        EXPECT_EQ(results[call], call < calls / 2 ? "-1 22" : "11 -1") << "call " << call + 1;
    EXPECT_EQ(lua.Eval("times"), "11 22");
}

TEST_F(DriverFlags, AFailedSetterDoesNotChangeTheValue) {
    PutNumber(L"driverChecked", 90);
    PutNumber(L"driverHooked", 90);
    PutList(L"before");
    const std::string before = registry().Tree(HKEY_LOCAL_MACHINE);
    for (const std::string setter : kSetters) {
        const unsigned calls = FailEachRegistryCall(faults(), lua, setter + ")", [&](unsigned nth) {
            EXPECT_EQ(registry().Tree(HKEY_LOCAL_MACHINE), before) << setter << ", call " << nth;
        });
        EXPECT_GE(calls, 3U);
        EXPECT_NE(registry().Tree(HKEY_LOCAL_MACHINE), before) << setter << " without a failure";
        lua.Run("f.SetDriverCheckedToReg(90) f.SetDriverHookedToReg(90) f.SetUncheckedIfc {'before'}");
    }
}

TEST_F(DriverFlags, EveryCallClosesItsKeysAndKeepsNoMemory) {
    PutStopTime(kServiceParameters, 1);
    VtaCore::Control::EnableTrace("*", false);
    const auto calls = [&] {
        LuaState own;
        Open(own);
        own.Run(R"(
            f = SLB.filter
            f.SetDriverCheckedToReg(1) f.GetDriverCheckedFromReg() f.SetDriverHookedToReg(1) f.GetDriverHookedFromReg()
            f.SetUncheckedIfc {'a', 2} f.GetUncheckedIfc() f.GetDriverStoppedByBLPTimestamp()
            pcall(f.SetDriverCheckedToReg, {}) pcall(f.SetUncheckedIfc, 1))");
    };
    calls();
    const Simulator::BalanceSnapshot before = balance().Take();
    calls();
    EXPECT_EQ(Simulator::Balance::Left(before, balance().Take()).size(), 0U)
        << balance().Difference(before, balance().Take());
}

TEST_F(DriverFlags, AnErrorOfAHookIsRaisedAsItIs) {
    lua.Run(R"(
        -- The hook raises at the n-th event.
        function call_with_hook(n, func, ...)
            local seen = 0
            debug.sethook(function()
                local current = debug.getinfo(2, 'f').func
                if current == pcall or current == debug.sethook then return end
                seen = seen + 1
                if seen == n then error('from a hook', 0) end
            end, 'cr')
            local ok, message = pcall(func, ...)
            debug.sethook()
            return ok, message
        end
        function failures_of(func, ...)
            for n = 1, 100 do
                local ok, message = call_with_hook(n, func, ...)
                if ok then return tostring(n - 1) end
                assert(message == 'from a hook', message)
            end
        end
    )");
    // At the call and the return of the function itself and of the one in its protected call.
    EXPECT_EQ(lua.Eval("failures_of(f.GetUncheckedIfc)"), "4");
    EXPECT_EQ(lua.Eval("failures_of(f.SetUncheckedIfc, {'eth0'})"), "4");
    EXPECT_EQ(List(), L"eth0");
}

TEST_F(DriverFlags, WhereverLuaRunsOutOfMemoryTheErrorIsRaisedAndNothingIsLeft) {
    VtaCore::Control::EnableTrace("*", false);
    const std::string prepare = R"(
        collectgarbage('stop')  -- else Lua helps itself out of a single failure
        names = {}
        for i = 1, 40 do names[i] = i + 0.5 end
        set, get = SLB.filter.SetUncheckedIfc, SLB.filter.GetUncheckedIfc)";
    lua.Run(prepare + " set(names) get()");
    for (const char *function : {"set", "get"}) {
        bool hit = true;
        unsigned nth = 0;
        while (hit) {
            SCOPED_TRACE(std::string(function) + ", allocation " + std::to_string(++nth));
            const Simulator::BalanceSnapshot before = balance().Take();
            {
                LuaState own;
                Open(own);
                own.Run(prepare);
                lua_getglobal(own, function);
                lua_getglobal(own, "names");
                const auto fault = balance().FailAllocation(nth, GetModuleHandleW(L"lua52.dll"));
                const int status = lua_pcall(own, 1, 1, 0);
                balance().CancelAllocationFaults();
                hit = fault->Hit();
                EXPECT_EQ(status != LUA_OK, hit);
                EXPECT_TRUE(!hit || std::strcmp(lua_tostring(own, -1), "not enough memory") == 0);
                EXPECT_EQ(status, hit ? LUA_ERRRUN : LUA_OK)
                    << "the error is raised again, as an error of the function";
            }
            EXPECT_EQ(Simulator::Balance::Left(before, balance().Take()).size(), 0U)
                << balance().Difference(before, balance().Take());
        }
        EXPECT_GT(nth, 40U) << function;
    }
    EXPECT_EQ(lua.Eval("get()[40]"), "40.5");
}

}  // namespace
