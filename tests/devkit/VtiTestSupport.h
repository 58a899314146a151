// Shared by the tests of the stand-in for vti.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "vti_control.h"

/// A driver in its initial state, and an open handle to it.
class OpenedDriver : public ::testing::Test {
protected:
    void SetUp() override {
        Vti::Reset();
        handle = vti_open();
        ASSERT_NE(handle, nullptr);
    }
    void TearDown() override {
        vti_close(handle);
        Vti::Reset();
    }

    std::string Error() const {
        char text[200] = {};
        vti_get_error(handle, text, sizeof text);
        return text;
    }

    vti_handle_t *handle = nullptr;
    Vti::Driver &driver = Vti::TheDriver();
};
