#include <gtest/gtest.h>
#include <wx/init.h>

int main(int argc, char **argv) {
    const wxInitializer wx;
    testing::InitGoogleTest(&argc, argv);
    return wx.IsOk() ? RUN_ALL_TESTS() : 1;
}
