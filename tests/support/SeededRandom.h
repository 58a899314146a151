// Random tests that can be repeated.
#pragma once

#include <random>
#include <string>

/// A generator seeded by GoogleTest's --gtest_random_seed (0: by the time).
std::mt19937 SeededRandom();
/// The option that repeats the same random tests.
std::string HowToRepeat();
/// How often a random test tries: the second number if FC_THOROUGH is set, as by ./dev test --load, else the first.
unsigned Thoroughly(unsigned usual, unsigned thorough);
