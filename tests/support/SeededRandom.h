// Random tests that can be had again.
#pragma once

#include <random>
#include <string>

/// A generator that is seeded by GoogleTest's --gtest_random_seed (0: by the time).
std::mt19937 SeededRandom();
/// The option that makes the same random tests again.
std::string HowToRepeat();
/// How often a random test tries: the second number where FC_THOROUGH is set, as ./dev test --load does, else the
/// first.
unsigned Thoroughly(unsigned usual, unsigned thorough);
