// Iterations with a policy of the agent.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ConfigurationFixture.h"

using Messages = std::vector<std::string>;

inline constexpr char kGood[] = R"({"SYS_THR_RUNQ": {"value": 50}})";
inline constexpr char kGoodWritten[] = "{\r\n\t\"SYS_THR_RUNQ\":\t{\r\n\t\t\"value\":\t50\r\n\t}\r\n}\r\n";

inline std::string AllMembers(const std::string &more = "") {
    std::string policy = "{";
    for (std::size_t i = kSettings.size(); i-- > 0;)
        policy += Member(kSettings[i], i < 11 ? Fixed(kSettings[i].max / 2) : "0.5") + ", ";
    return policy + R"("OTHER": [1, {"value": 2}], "SYS_THR_OTHER": {"value": 3})" + more + "}";
}

inline constexpr char kAllMembersWritten[] =
    "{\r\n"
    "\t\"SYS_CONF_CONN_REFUSAL_PORT\":\t32767.5,\r\n"
    "\t\"SYS_CONF_CONN_REFUSAL_OUTBOUND\":\t0.5,\r\n"
    "\t\"SYS_CONF_RECOVER_FACTOR\":\t50,\r\n"
    "\t\"SYS_CONF_MIN_ACT_DURATION\":\t15,\r\n"
    "\t\"SYS_CONF_MAX_ACT_DURATION\":\t120,\r\n"
    "\t\"SYS_THR_CONN_REFUSAL_PCT\":\t{\r\n\t\t\"value\":\t50\r\n\t},\r\n"
    "\t\"SYS_THR_RUNQ\":\t{\r\n\t\t\"value\":\t100\r\n\t},\r\n"
    "\t\"SYS_THR_CONN_EST_PER_CPU\":\t{\r\n\t\t\"value\":\t5000000\r\n\t},\r\n"
    "\t\"SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU\":\t{\r\n\t\t\"value\":\t50000\r\n\t},\r\n"
    "\t\"SYS_THR_FREE_MEM\":\t{\r\n\t\t\"value\":\t12.5\r\n\t},\r\n"
    "\t\"SYS_THR_MAX_ITERATION_INVL\":\t{\r\n\t\t\"value\":\t30\r\n\t},\r\n"
    "\t\"SYS_CONF_UNLOAD_DRIVER\":\t0.5,\r\n"
    "\t\"SYS_CONF_DISABLE_FAIL_OPEN\":\t0.5\r\n"
    "}\r\n";

class Policy : public ConfigurationFixture {
protected:
    /// The policy can't be parsed, and the iteration continues with nothing set.
    void ExpectParseError(const std::string &policy) {
        const Heard heard = ReadPolicy(policy);
        EXPECT_EQ(heard.action, kNormal);
        EXPECT_FALSE(heard.count);
        EXPECT_EQ(heard.configuration, Messages());
        EXPECT_EQ(heard.errors, Messages());
        EXPECT_EQ(heard.EngineLines("json parsing error [").size(), 1u);
        EXPECT_EQ(WrittenJson(), kNothingWritten);
    }
    /// The policy is read, and contains no known setting.
    void ExpectNothingInIt(const std::string &policy) {
        const Heard heard = ReadPolicy(policy);
        EXPECT_EQ(heard.action, kDisabled);
        EXPECT_FALSE(heard.count);
        EXPECT_EQ(heard.configuration, Messages());
        EXPECT_EQ(heard.EngineLines(" value"), Messages());
        EXPECT_EQ(heard.EngineLines("json"), Messages());
        EXPECT_EQ(heard.errors, Messages());
        EXPECT_EQ(WrittenJson(), kNothingWritten);
    }
};
