// Failures on a machine that tests and benchmarks share.
#pragma once

#include <string>

/// Reports that an assumption of the program is violated. Each program defines it: a test fails, a benchmark ends. Any
/// thread.
void NoteFailure(const std::string &what);
