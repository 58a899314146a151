#include "HangReport.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>

#include <gtest/gtest.h>

namespace {

constexpr char kOnlyPlace[] = "FC_HANG_AT";

}  // namespace

bool HangReport::IsForOnePlace() {
    return std::getenv(kOnlyPlace) != nullptr;
}

bool HangReport::IsWanted(std::size_t index) {
    return !IsForOnePlace() || std::to_string(index) == std::getenv(kOnlyPlace);
}

std::string HangReport::HowToRepeat(std::size_t index) {
    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    return "again with " + std::string(kOnlyPlace) + "=" + std::to_string(index) +
           " --gtest_filter=" + test->test_suite_name() + "." + test->name();
}

void HangReport::Tell(std::size_t places, const std::string &what) {
    const std::size_t tried = m_returnedAfterMs.size() + m_withoutTime;
    ASSERT_NE(tried, 0U) << "there is no place with that number";
    std::cout << "[  HANGS   ] " << tried << " of " << places << " " << what;
    if (m_withoutTime != 0)
        std::cout << " (but for " << m_withoutTime << " that come after the answer)";
    if (!m_returnedAfterMs.empty()) {
        std::sort(m_returnedAfterMs.begin(), m_returnedAfterMs.end());
        std::cout << "; real time from there to the script's answer: median "
                  << m_returnedAfterMs[m_returnedAfterMs.size() / 2] << " ms, worst " << m_returnedAfterMs.back()
                  << " ms";
    }
    std::cout << std::endl;
}
