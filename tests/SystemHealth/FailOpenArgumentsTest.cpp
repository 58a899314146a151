// The arguments of an iteration: the agent object, the state, the configuration.

#include <cstring>

#include "FailOpenFixture.h"
#include "slb3_control.h"

namespace {

using namespace Health;

// ---- The agent object

TEST_F(FailOpen, ADomOfAnotherLuaTypeIsABadArgumentWithoutAMessage) {
    lua.Run("light = nil co = coroutine.create(print)");
    for (const std::string value : {"nil", "true", "7", "'SLB.Dom'", "{}", "print", "co", "io.stdout"}) {
        EXPECT_EQ(ActionOf(value + ", 'Deactivated', ''"), "6") << value;
        EXPECT_EQ(EngineTraces(), (std::vector<std::string>{kSettingEnabled}));
    }
    EXPECT_EQ(ActionOf(""), "6");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailOpen, AConstForeignOrForgottenDomIsABadArgumentWithoutAMessage) {
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom, true);
    lua_setglobal(lua, "const");
    SLB3::Control::PushInstance(lua, "SLB.Domain", &dom);
    lua_setglobal(lua, "foreign");
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    SLB3::Control::ForgetObject(lua, -1);
    lua_setglobal(lua, "forgotten");
    for (const std::string value : {"const", "foreign", "forgotten"}) {
        EXPECT_EQ(ActionOf(value + ", 'Deactivated', ''"), "6") << value;
        EXPECT_EQ(EngineTraces(), (std::vector<std::string>{kSettingEnabled}));
    }
    EXPECT_TRUE(log.Take().empty());
}

void *DomItself(void *object) {
    return object;
}

TEST_F(FailOpen, ADomThatNoBaseLeadsToIsABadArgumentWithoutAMessage) {
    const SLB3::SlbBaseEntry others[] = {{nullptr, 1, &DomItself}, {"SLB.Other", 1, &DomItself}, {nullptr, 0, nullptr}};
    const SLB3::SlbBaseEntry unconvertible[] = {{"SLB.Dom", 1, nullptr}, {nullptr, 0, nullptr}};
    for (const SLB3::SlbBaseEntry *bases : {others, unconvertible}) {
        SLB3::Control::PushInstance(lua, "SLB.DerivedDom", &dom, false, bases);
        lua_setglobal(lua, "derived");
        EXPECT_EQ(ActionOf("derived, 'Deactivated', ''"), "6");
    }
    std::memset(lua_newuserdata(lua, sizeof(SLB3::SlbInstance)), 0, sizeof(SLB3::SlbInstance));
    lua_setglobal(lua, "zeros");
    EXPECT_EQ(ActionOf("zeros, 'Deactivated', ''"), "6");
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailOpen, TheDomIsCheckedBeforeTheState) {
    EXPECT_EQ(ActionOf("nil, 5, 5"), "6");
    EXPECT_EQ(EngineTraces(), (std::vector<std::string>{kSettingEnabled}));
}

// ---- The state

struct TypedValue {
    const char *value;
    int type;
};
constexpr TypedValue kNoStrings[] = {{"nil", 0},   {"false", 1}, {"1", 3},  {"{}", 5},
                                     {"print", 6}, {"dom", 7},   {"co", 8}, {"light", 2}};

TEST_F(FailOpen, AStateThatIsNotAStringIsTracedWithItsType) {
    lua.Run("co = coroutine.create(print)");
    lua_pushlightuserdata(lua, &dom);
    lua_setglobal(lua, "light");
    for (const auto &[value, type] : kNoStrings) {
        EXPECT_EQ(ActionOf(std::string("dom, ") + value + ", ''"), "6") << value;
        EXPECT_EQ(EngineTraces(),
                  (std::vector<std::string>{"incorrect type " + std::to_string(type) + " for state string",
                                            kSettingEnabled}));
    }
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailOpen, AMissingStateIsTracedAsNoValue) {
    EXPECT_EQ(ActionOf("dom"), "6");
    EXPECT_EQ(EngineTraces(), (std::vector<std::string>{"incorrect type -1 for state string", kSettingEnabled}));
}

TEST_F(FailOpen, AnUnknownStateIsLoggedAsAnError) {
    for (const std::string state : {"", "activated", "Activate", "Deactivate", "DEACTIVATED", " Activated", "x"}) {
        EXPECT_EQ(Check(state), kBadArgument) << state;
        const std::vector<LogLine> lines = log.Take();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].text, "incorrect state value " + state + " for state string");
        EXPECT_EQ(lines[0].level, static_cast<wxLogLevel>(wxLOG_Error));
        EXPECT_EQ(EngineTraces(), (std::vector<std::string>{kSettingEnabled}));
    }
}

TEST_F(FailOpen, StateAndConfigurationInAnyEncodingKeepTheirAscii) {
    EXPECT_EQ(Check("ger\xE4t \xFF\x81 %s%n"), kBadArgument);
    const std::vector<std::string> errors = TakeErrors();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with("incorrect state value ger")) << errors[0];
    EXPECT_TRUE(errors[0].ends_with("%s%n for state string")) << errors[0];
    Forget();
    ASSERT_EQ(Check("Deactivated", "ger\xE4t \xFF\x81 %s%n"), kNormal);
    const std::string traced = EngineTraces().front();
    EXPECT_TRUE(traced.starts_with("cloud_config size[13]:ger")) << traced;
    EXPECT_TRUE(traced.ends_with("%s%n ")) << traced;
}

TEST_F(FailOpen, AStateIsComparedByteByByteEvenAfterANul) {
    EXPECT_EQ(Check(std::string("Activ\0ated", 10)), kBadArgument);
    EXPECT_EQ(TakeErrors(), (std::vector<std::string>{"incorrect state value Activ for state string"}));
    EXPECT_EQ(Check(std::string("Activated\0x", 11)), kFailOpen);
    EXPECT_EQ(Check(std::string("Deactivated\0", 12)), kNormal);
}

TEST_F(FailOpen, AStateMayBeFollowedByMoreText) {
    ASSERT_EQ(Check("Activated since yesterday"), kFailOpen);
    EXPECT_EQ(FieldOf(TakeLongLine(), "startSt"), "Act");
    ASSERT_EQ(Check("Deactivatedx"), kNormal);
    EXPECT_EQ(FieldOf(TakeLongLine(), "startSt"), "Deact");
}

// ---- The configuration argument

TEST_F(FailOpen, AConfigurationThatIsNotAStringIsTracedWithItsType) {
    lua.Run("co = coroutine.create(print)");
    lua_pushlightuserdata(lua, &dom);
    lua_setglobal(lua, "light");
    for (const auto &[value, type] : kNoStrings) {
        EXPECT_EQ(ActionOf(std::string("dom, 'Deactivated', ") + value), "6") << value;
        EXPECT_EQ(EngineTraces(),
                  (std::vector<std::string>{"incorrect type " + std::to_string(type) + " for state string",
                                            kSettingEnabled}));
    }
    EXPECT_EQ(ActionOf("dom, 'Activated'"), "6");
    EXPECT_TRUE(Has(EngineTraces(), "incorrect type -1 for state string"));
    EXPECT_TRUE(log.Take().empty());
}

TEST_F(FailOpen, TheStateIsCheckedBeforeTheConfiguration) {
    EXPECT_EQ(ActionOf("dom, 'nonsense', 5"), "6");
    EXPECT_EQ(TakeErrors(), (std::vector<std::string>{"incorrect state value nonsense for state string"}));
    EXPECT_EQ(EngineTraces(), (std::vector<std::string>{kSettingEnabled}));
}

TEST_F(FailOpen, TheConfigurationIsTracedWithItsRawLength) {
    ASSERT_EQ(Check("Deactivated", ""), kNormal);
    EXPECT_EQ(EngineTraces().front(), "cloud_config size[0]: ");
    const std::string policy = R"({"SYS_THR_RUNQ": {"value": 50}})";
    ASSERT_EQ(Check("Deactivated", policy), kNormal);
    EXPECT_EQ(EngineTraces().front(), "cloud_config size[31]:" + policy + " ");
    ASSERT_EQ(Check("Deactivated", policy + std::string("\0more", 5)), kNormal);
    EXPECT_EQ(EngineTraces().front(), "cloud_config size[36]:" + policy + " ");
}

TEST_F(FailOpen, ANonEmptyConfigurationReplacesTheFile) {
    ASSERT_EQ(Check("Deactivated", R"({"SYS_THR_RUNQ": {"value": 17}})"), kNormal);
    EXPECT_EQ(Metric("rqpct").threshold, 17);
    EXPECT_EQ(Metric("delta_t").threshold, 45) << "not the file's";
    ASSERT_EQ(Check(), kNormal);
    EXPECT_EQ(Metric("rqpct").threshold, 50);
}

TEST_F(FailOpen, AConfigurationThatBeginsWithANulIsNotEmpty) {
    ASSERT_EQ(Check("Deactivated", std::string("\0", 1)), kNormal);
    EXPECT_EQ(Metric("rqpct").threshold, 0) << "neither file nor policy";
    EXPECT_EQ(Metric("delta_t").threshold, 45);
}

TEST_F(FailOpen, ExtraArgumentsAreIgnored) {
    EXPECT_EQ(ActionOf("dom, 'Deactivated', '', 'Activated', {}"), "0");
}

}  // namespace
