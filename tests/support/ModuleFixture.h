// A test with a freshly loaded module.
#pragma once

#include <gtest/gtest.h>

#include "ModuleMachine.h"

class ModuleFixture : public testing::Test, protected ModuleMachine {
protected:
    /// @param parts  of the simulated Windows; the balance must be among them.
    explicit ModuleFixture(const Simulator::SimulationParts &parts = {.registry = false, .folders = false})
        : ModuleMachine(parts) {}
};
