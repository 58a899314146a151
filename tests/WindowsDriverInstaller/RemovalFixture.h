// A machine on which both drivers are installed.
#pragma once

#include <gtest/gtest.h>

#include "DriverMachine.h"

class RemovalFixture : public testing::Test, protected DriverMachine {};
