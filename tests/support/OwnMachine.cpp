#include "OwnMachine.h"

#include <array>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace {

/// Their tests create, change or start services, drivers, INF files, registry keys or the firewall's settings.
constexpr std::array<const char *, 7> kSuites{"RealFirewall",     "RealInf",     "RealInfByHand", "RealKey",
                                              "RealRegistryTree", "RealService", "RealServices"};

/// GoogleTest forgets what is recorded before it runs.
class SuitesInResults : public testing::Environment {
public:
    explicit SuitesInResults(std::string names) : m_names(std::move(names)) {}
    void SetUp() override { testing::Test::RecordProperty("left_out", m_names); }

private:
    const std::string m_names;
};

bool HasSuite(const std::string &name) {
    const testing::UnitTest &program = *testing::UnitTest::GetInstance();
    for (int i = 0; i < program.total_test_suite_count(); ++i)
        if (program.GetTestSuite(i)->name() == name)
            return true;
    return false;
}

}  // namespace

void LeaveMachineAloneIfAsked() {
    if (std::getenv("FC_LEAVE_MACHINE_ALONE") == nullptr)
        return;
    std::string names;
    std::string filter = GTEST_FLAG_GET(filter);
    for (const std::string suite : kSuites) {
        if (!HasSuite(suite))
            continue;
        filter += (filter.find('-') == filter.npos ? "-" : ":") + suite + ".*";
        names += (names.empty() ? "" : ", ") + suite;
    }
    GTEST_FLAG_SET(filter, filter);
    testing::AddGlobalTestEnvironment(new SuitesInResults(names));  // GoogleTest's from here on
}
