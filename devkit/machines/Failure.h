// What becomes of a failure on a machine that tests and benchmarks share.
#pragma once

#include <string>

/// Notes that what a program relies on has gone wrong. Each program defines it: a test fails, a benchmark ends. Any
/// thread.
void NoteFailure(const std::string &what);
