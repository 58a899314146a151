// Stubs for the module's imports, so that benchmarks exclude the time of the system and the driver.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "ImportTable.h"

/// Replaces the function in the module for the lifetime of the redirections; ends the program if the module does not
/// import it.
template <typename Stub>
void Redirect(std::vector<Simulator::Redirection> &redirections, HMODULE module, const char *function, Stub *stub) {
    redirections.emplace_back(module, function, reinterpret_cast<void *>(stub));
    if (redirections.back().Found())
        return;
    (void)std::fprintf(stderr, "bench: fc.dll does not import %s: the benchmark has to be adapted\n", function);
    std::exit(2);
}
