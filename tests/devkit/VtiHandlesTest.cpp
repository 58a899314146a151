// The stand-in for vti: handles, errors, faults and the record of calls.
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "vti_control.h"

namespace {

constexpr int32_t kInvalidHandle = -10001;

class VtiHandles : public ::testing::Test {
protected:
    void SetUp() override { Vti::Reset(); }
    void TearDown() override { Vti::Reset(); }
};

std::string ErrorOf(vti_handle_t *handle) {
    char text[200] = {};
    vti_get_error(handle, text, sizeof text);
    return text;
}

}  // namespace

TEST_F(VtiHandles, CountsWhatIsOpen) {
    const int before = Vti::TheDriver().openHandles;
    vti_handle_t *first = vti_open();
    vti_handle_t *second = vti_open();
    EXPECT_NE(first, second);
    EXPECT_EQ(Vti::TheDriver().openHandles, before + 2);
    vti_close(first);
    vti_close(first);
    EXPECT_EQ(Vti::TheDriver().openHandles, before + 1);
    vti_close(second);
    EXPECT_EQ(Vti::TheDriver().openHandles, before);
}

TEST_F(VtiHandles, OpensNothingWithoutADriver) {
    Vti::TheDriver().present = false;
    EXPECT_EQ(vti_open(), nullptr);
}

TEST_F(VtiHandles, RefusesNullClosedAndForeignHandles) {
    vti_handle_t *closed = vti_open();
    vti_close(closed);
    int foreign = 0;
    for (vti_handle_t *handle :
         {static_cast<vti_handle_t *>(nullptr), closed, reinterpret_cast<vti_handle_t *>(&foreign)}) {
        FilterVariable variable{};
        EXPECT_EQ(vti_get_var(handle, 0, &variable), kInvalidHandle);
        EXPECT_EQ(vti_driver_available(handle), kInvalidHandle);
        EXPECT_EQ(ErrorOf(handle), "the handle is not open");
        vti_close(handle);
    }
}

TEST_F(VtiHandles, NeverReusesAClosedHandle) {
    vti_handle_t *first = vti_open();
    vti_close(first);
    vti_handle_t *second = vti_open();
    EXPECT_NE(first, second);
    vti_close(second);
}

TEST_F(VtiHandles, ReportsWhetherTheDriverAnswers) {
    vti_handle_t *handle = vti_open();
    EXPECT_GT(vti_driver_available(handle), 0);
    Vti::TheDriver().available = false;
    EXPECT_EQ(vti_driver_available(handle), 0);
    vti_close(handle);
}

TEST_F(VtiHandles, KeepsTheLastErrorOfEachHandleApart) {
    vti_handle_t *first = vti_open();
    vti_handle_t *second = vti_open();
    EXPECT_NE(vti_set_var(first, 174, 1), 0);
    EXPECT_EQ(ErrorOf(first), "there is no filter variable 174");
    EXPECT_EQ(ErrorOf(second), "");
    EXPECT_EQ(vti_set_var(first, 0, 1), 0);
    EXPECT_EQ(ErrorOf(first), "there is no filter variable 174");
    vti_close(first);
    vti_close(second);
}

TEST_F(VtiHandles, AnErrorThatFillsTheBufferIsNotTerminated) {
    vti_handle_t *handle = vti_open();
    Vti::TheDriver().faults["vti_get_version"] = {-5, "12345678", -1, 0};
    char version[112] = {};
    EXPECT_EQ(vti_get_version(handle, version), -5);
    char text[10];
    std::memset(text, '#', sizeof text);
    vti_get_error(handle, text, 8);
    EXPECT_EQ(std::string(text, sizeof text), "12345678##");
    vti_get_error(handle, text, 9);
    EXPECT_EQ(std::string(text, sizeof text), std::string("12345678\0#", 10));
    std::memset(text, '#', sizeof text);
    vti_get_error(handle, text, 3);
    EXPECT_EQ(std::string(text, sizeof text), "123#######");
    vti_close(handle);
}

TEST_F(VtiHandles, AFaultBeginsAndEndsAfterSomeCalls) {
    vti_handle_t *handle = vti_open();
    Vti::TheDriver().faults["vti_set_var"] = {-7, "full", 2, 1};
    EXPECT_EQ(vti_set_var(handle, 3, 10), 0);
    EXPECT_EQ(vti_set_var(handle, 3, 11), -7);
    EXPECT_EQ(ErrorOf(handle), "full");
    EXPECT_EQ(vti_set_var(handle, 3, 12), -7);
    EXPECT_EQ(Vti::TheDriver().variables[3], 10U);
    EXPECT_EQ(vti_set_var(handle, 3, 13), 0);
    EXPECT_EQ(Vti::TheDriver().variables[3], 13U);
    vti_close(handle);
}

TEST_F(VtiHandles, AFaultOfOpenReturnsNoHandle) {
    Vti::TheDriver().faults["vti_open"] = {-1, "", 1, 0};
    EXPECT_EQ(vti_open(), nullptr);
    vti_handle_t *handle = vti_open();
    EXPECT_NE(handle, nullptr);
    vti_close(handle);
}

TEST_F(VtiHandles, AResetKeepsHandlesOpen) {
    vti_handle_t *handle = vti_open();
    const int open = Vti::TheDriver().openHandles;
    Vti::TheDriver().variables[0] = 9;
    Vti::Reset();
    EXPECT_EQ(Vti::TheDriver().openHandles, open);
    EXPECT_EQ(Vti::TheDriver().variables[0], 0U);
    EXPECT_EQ(vti_driver_available(handle), 1);
    vti_close(handle);
}

TEST_F(VtiHandles, RecordsEveryCallWithItsPlainArguments) {
    vti_handle_t *handle = vti_open();
    (void)vti_driver_available(handle);
    (void)vti_set_var(handle, 5, 77);
    (void)ErrorOf(handle);
    vti_close(handle);
    const std::vector<std::string> expected{"vti_open()", "vti_driver_available()", "vti_set_var(5, 77)",
                                            "vti_get_error(200)", "vti_close()"};
    EXPECT_EQ(Vti::TheDriver().calls, expected);
}

TEST_F(VtiHandles, TheRecordOfCallsKeepsTheLatestWithinItsBound) {
    vti_handle_t *handle = vti_open();
    for (int i = 0; i < 100'500; ++i)
        (void)vti_driver_available(handle);
    (void)vti_set_var(handle, 1, 2);
    EXPECT_LE(Vti::TheDriver().calls.size(), 100'000U);
    EXPECT_GE(Vti::TheDriver().calls.size(), 50'000U);
    EXPECT_EQ(Vti::TheDriver().calls.back(), "vti_set_var(1, 2)");
    vti_close(handle);
}

TEST_F(VtiHandles, ServesManyThreadsAtOnce) {
    constexpr int threads = 8;
    constexpr int rounds = 500;
    std::vector<std::thread> workers;
    workers.reserve(threads);
    std::array<int, threads> failures{};
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([t, &failures] {
            for (int i = 0; i < rounds; ++i) {
                vti_handle_t *handle = vti_open();
                FilterVariable variable{};
                const auto index = static_cast<uint32_t>(t);
                if (vti_set_var(handle, index, static_cast<uint32_t>(i)) != 0 ||
                    vti_get_var(handle, index, &variable) != 0 || variable.value != static_cast<uint32_t>(i))
                    ++failures[static_cast<std::size_t>(t)];
                vti_close(handle);
            }
        });
    for (std::thread &worker : workers)
        worker.join();
    EXPECT_EQ(failures, (std::array<int, threads>{}));
    EXPECT_EQ(Vti::TheDriver().calls.size(), static_cast<std::size_t>(threads * rounds * 4));
}
