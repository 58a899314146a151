#include "SeededRandom.h"

#include <cstdlib>

#include <gtest/gtest.h>

std::mt19937 SeededRandom() {
    return std::mt19937(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()));
}

std::string HowToRepeat() {
    return "again with --gtest_random_seed=" + std::to_string(testing::UnitTest::GetInstance()->random_seed());
}

unsigned Thoroughly(unsigned usual, unsigned thorough) {
    return std::getenv("FC_THOROUGH") ? thorough : usual;
}
