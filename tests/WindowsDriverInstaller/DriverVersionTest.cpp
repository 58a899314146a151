// The version of the running driver.

#include <array>
#include <string>
#include <vector>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "WindowsDriverInstaller/drivers/DriverVersions.h"
#include "vta_core.h"
#include "vta_core_control.h"
#include "vti_control.h"

namespace {

using Components = std::array<unsigned short, 4>;
using Lines = std::vector<std::string>;

constexpr Components kUnknown{};

/// A driver that answers; the component "NDIS" is traced. No test may leave a handle open.
class RunningDriverVersion : public ModuleFixture {
protected:
    RunningDriverVersion() {
        Vti::Reset();
        VtaCore::Control::EnableTrace("*", true);
        (void)TakeTracedLines();
        (void)VtaCore::Control::TakeEvents();
    }
    ~RunningDriverVersion() override {
        EXPECT_EQ(driver().openHandles, 0);
        VtaCore::Control::EnableTrace("*", false);
        (void)TakeTracedLines();
        Vti::Reset();
    }

    /// Queries the driver; the components held other values before.
    bool Ask() {
        version = {9, 9, 9, 9};
        return GetDriverVersion(m_dom, &version[0], &version[1], &version[2], &version[3]);
    }
    bool Ask(const std::string &text) {
        driver().version = text;
        return Ask();
    }
    static Lines Events() {
        Lines events;
        for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents())
            events.push_back(std::to_string(event.number) + " " + event.text.utf8_string());
        return events;
    }
    static std::string ParseMessage(const std::string &text) {
        return "Unable to parse the version string returned from the running driver ('" + text + "')";
    }
    static Vti::Driver &driver() { return Vti::TheDriver(); }

    Components version{};

private:
    VtaCore::Control::Dom m_dom;
};

TEST_F(RunningDriverVersion, ConsistsOfTheFourNumbersInTheDriversText) {
    EXPECT_TRUE(Ask("1.20.300.4000"));
    EXPECT_EQ(version, (Components{1, 20, 300, 4000}));
    EXPECT_EQ(driver().calls, (Lines{"vti_open()", "vti_get_version()", "vti_close()"}));
    EXPECT_EQ(Events(), Lines{});
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(RunningDriverVersion, IsParsedFromFourNumbersFollowedByOtherCharacters) {
    for (const char *text : {"1.2.3.4-beta", "1.2.3.4.5", "1.2.3.4 (release)", "1.2.3.4.", " 1. 2. 3. 4"}) {
        EXPECT_TRUE(Ask(text)) << text;
        EXPECT_EQ(version, (Components{1, 2, 3, 4})) << text;
    }
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(RunningDriverVersion, HasComponentsTruncatedTo16Bits) {
    EXPECT_TRUE(Ask("70000.65535.65536.-1"));
    EXPECT_EQ(version, (Components{70000 - 65536, 65535, 0, 65535}));
}

TEST_F(RunningDriverVersion, IsAllZeroAndTracedWithoutFourNumbersInTheText) {
    for (const char *text : {"1.2.3", "1.2.3.", "", "v1.2.3.4", "1 .2.3.4", "1,2,3,4", "1.2.x.4", "%s%n.%d"}) {
        EXPECT_FALSE(Ask(text)) << text;
        EXPECT_EQ(version, kUnknown) << text;
        const std::vector<TracedLine> lines = TakeTracedLines();
        ASSERT_EQ(lines.size(), 1U) << text;
        EXPECT_EQ(lines[0].component, "NDIS");
        EXPECT_EQ(lines[0].message, ParseMessage(text));
        EXPECT_EQ(lines[0].function, "GetDriverVersion");
    }
    EXPECT_EQ(Events(), Lines{});
}

TEST_F(RunningDriverVersion, IsTracedWithAtMost64CharactersOfTheText) {
    EXPECT_FALSE(Ask(std::string(67, 'a')));
    EXPECT_EQ(TakeTracedMessages("NDIS"), Lines{ParseMessage(std::string(64, 'a'))});
}

TEST_F(RunningDriverVersion, IsReadFromATextThatFillsTheBuffer) {
    std::string text(111, '0');
    text.replace(0, 6, "1.2.3.").back() = '5';
    EXPECT_TRUE(Ask(text));
    EXPECT_EQ(version, (Components{1, 2, 3, 5}));
}

TEST_F(RunningDriverVersion, IsNotTracedWhileTheComponentIsDisabled) {
    VtaCore::Control::EnableTrace("NDIS", false);
    EXPECT_FALSE(Ask("1.2.3"));
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(RunningDriverVersion, IsAllZeroWithoutAnEventWhenTheDriverCannotBeOpened) {
    driver().present = false;
    EXPECT_FALSE(Ask());
    EXPECT_EQ(version, kUnknown);
    EXPECT_EQ(driver().calls, Lines{"vti_open()"});
    EXPECT_EQ(Events(), Lines{});
    EXPECT_TRUE(TakeTracedLines().empty());
}

TEST_F(RunningDriverVersion, IsAllZeroWithAnEventWhenTheDriverFails) {
    driver().faults["vti_get_version"] = {-17, "100% broken"};
    EXPECT_FALSE(Ask("1.2.3.4"));
    EXPECT_EQ(version, kUnknown);
    EXPECT_EQ(Events(), Lines{"1001 GET_VERSION|ffffffef"});
    EXPECT_EQ(driver().calls, (Lines{"vti_open()", "vti_get_version()", "vti_close()"}));
    EXPECT_EQ(TakeTracedMessages("NDIS"), Lines{});
}

TEST_F(RunningDriverVersion, IsAllZeroForAPositiveStatusToo) {
    driver().faults["vti_get_version"] = {0x2A, ""};
    EXPECT_FALSE(Ask());
    EXPECT_EQ(version, kUnknown);
    EXPECT_EQ(Events(), Lines{"1001 GET_VERSION|0000002a"});
}

}  // namespace
