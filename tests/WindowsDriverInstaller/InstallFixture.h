// A machine that has adapters, and the files of both drivers.
#pragma once

#include <gtest/gtest.h>

#include "AdapterMachine.h"

class InstallFixture : public testing::Test, protected AdapterMachine {};
