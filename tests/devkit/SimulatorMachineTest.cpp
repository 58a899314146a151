#include "Machine.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>
#include <winperf.h>

#include "MachineFunctions.h"
#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr wchar_t kQueueLength[] = L"\\System\\Processor Queue Length";

constexpr PDH_STATUS Status(DWORD code) {
    return static_cast<PDH_STATUS>(code);
}

/// The functions of pdh.dll, looked up as by a program that does not import them.
struct Pdh {
    explicit Pdh(HMODULE library) {
        Find(library, "PdhOpenQueryW", open);
        Find(library, "PdhAddCounterW", add);
        Find(library, "PdhCollectQueryData", collect);
        Find(library, "PdhGetFormattedCounterValue", format);
        Find(library, "PdhCloseQuery", close);
    }
    decltype(&::PdhOpenQueryW) open = nullptr;
    decltype(&::PdhAddCounterW) add = nullptr;
    decltype(&::PdhCollectQueryData) collect = nullptr;
    decltype(&::PdhGetFormattedCounterValue) format = nullptr;
    decltype(&::PdhCloseQuery) close = nullptr;

private:
    template <class F>
    static void Find(HMODULE library, const char *name, F &function) {
        function = reinterpret_cast<F>(reinterpret_cast<void *>(GetProcAddress(library, name)));
    }
};

HMODULE PdhLibrary() {
    static const HMODULE library = LoadLibraryW(L"pdh.dll");
    return library;
}

/// This program on a simulated machine.
class SimulatedMachine : public ::testing::Test {
protected:
    SimulatedMachine() {
        (void)simulation.Attach(ThisProgram());
        pdh = std::make_unique<Pdh>(PdhLibrary());
        (void)simulation.GetJournal().Take();
    }

    PDH_HQUERY Query() {
        PDH_HQUERY query = nullptr;
        EXPECT_EQ(pdh->open(nullptr, 0, &query), ERROR_SUCCESS);
        return query;
    }
    PDH_HCOUNTER Counter(PDH_HQUERY query) {
        PDH_HCOUNTER counter = nullptr;
        EXPECT_EQ(pdh->add(query, kQueueLength, 0, &counter), ERROR_SUCCESS);
        return counter;
    }
    PDH_STATUS Format(PDH_HCOUNTER counter, double &value, DWORD format = PDH_FMT_DOUBLE) {
        PDH_FMT_COUNTERVALUE formatted{};
        formatted.doubleValue = value;
        const PDH_STATUS status = pdh->format(counter, format, nullptr, &formatted);
        value = formatted.doubleValue;
        return status;
    }
    /// The queue as a program samples it.
    double Sample() {
        const PDH_HQUERY query = Query();
        const PDH_HCOUNTER counter = Counter(query);
        double value = -1;
        EXPECT_EQ(pdh->collect(query), ERROR_SUCCESS);
        EXPECT_EQ(Format(counter, value), ERROR_SUCCESS);
        EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
        return value;
    }
    [[nodiscard]] std::size_t OpenQueries() { return simulation.GetBalance().Take().Count(Kind::kQuery); }

    Simulation simulation{{.registry = false, .folders = true, .balance = true, .machine = true}};
    Machine &machine = simulation.GetMachine();
    std::unique_ptr<Pdh> pdh;
};

DWORD Processors() {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    return info.dwNumberOfProcessors;
}

}  // namespace

TEST_F(SimulatedMachine, ReportsTheLengthOfItsProcessorQueue) {
    EXPECT_EQ(Sample(), 0);
    machine.processorQueue = 17.5;
    EXPECT_EQ(Sample(), 17.5);
}

TEST_F(SimulatedMachine, ReportsQueuesThatNoRealMachineHas) {
    machine.processorQueue = -3;
    EXPECT_EQ(Sample(), -3);
    machine.processorQueue = std::numeric_limits<double>::infinity();
    EXPECT_EQ(Sample(), std::numeric_limits<double>::infinity());
    machine.processorQueue = std::numeric_limits<double>::quiet_NaN();
    EXPECT_TRUE(std::isnan(Sample()));
}

TEST_F(SimulatedMachine, SaysWhatKindOfCounterTheQueueIs) {
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    DWORD type = 0;
    PDH_FMT_COUNTERVALUE value{};
    value.CStatus = 99;
    EXPECT_EQ(pdh->format(counter, PDH_FMT_DOUBLE | PDH_FMT_NOCAP100, &type, &value), ERROR_SUCCESS);
    EXPECT_EQ(type, static_cast<DWORD>(PERF_COUNTER_RAWCOUNT));
    EXPECT_EQ(value.CStatus, PDH_CSTATUS_VALID_DATA);
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, HasNoQueueLengthBeforeItIsCollected) {
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER first = Counter(query);
    double value = 5;
    EXPECT_EQ(Format(first, value), Status(PDH_INVALID_DATA));
    EXPECT_EQ(value, 5) << "left alone";
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    const PDH_HCOUNTER later = Counter(query);
    EXPECT_EQ(Format(first, value), ERROR_SUCCESS);
    EXPECT_EQ(Format(later, value), Status(PDH_INVALID_DATA)) << "added after the collection";
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, KeepsTheQueueLengthThatWasCollected) {
    machine.processorQueue = 2;
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    machine.processorQueue = 3;
    double value = -1;
    EXPECT_EQ(Format(counter, value), ERROR_SUCCESS);
    EXPECT_EQ(value, 2);
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    EXPECT_EQ(Format(counter, value), ERROR_SUCCESS);
    EXPECT_EQ(value, 3);
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, HasNoCounterButTheQueueLength) {
    const PDH_HQUERY query = Query();
    PDH_HCOUNTER counter = nullptr;
    for (const wchar_t *path :
         {L"\\System\\System Up Time", L"System\\Processor Queue Length", L"", L"\\System\\Processor Queue Length "})
        EXPECT_EQ(pdh->add(query, path, 0, &counter), Status(PDH_CSTATUS_NO_COUNTER)) << path;
    EXPECT_EQ(counter, nullptr);
    EXPECT_EQ(pdh->collect(query), Status(PDH_NO_DATA)) << "the query is empty";
    EXPECT_EQ(pdh->add(query, L"\\SYSTEM\\processor queue length", 0, &counter), ERROR_SUCCESS);
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, RefusesHandlesOfAClosedQuery) {
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    ASSERT_EQ(pdh->close(query), ERROR_SUCCESS);
    PDH_HCOUNTER another = nullptr;
    double value = 0;
    EXPECT_EQ(pdh->close(query), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(pdh->collect(query), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(pdh->add(query, kQueueLength, 0, &another), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(Format(counter, value), Status(PDH_INVALID_HANDLE));
}

TEST_F(SimulatedMachine, RefusesHandlesOfAnotherKind) {
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    double value = 0;
    EXPECT_EQ(pdh->collect(counter), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(pdh->close(counter), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(Format(query, value), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(pdh->close(nullptr), Status(PDH_INVALID_HANDLE));
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, NeverReusesAHandle) {
    std::set<HANDLE> handles;
    for (int i = 0; i < 100; ++i) {
        const PDH_HQUERY query = Query();
        EXPECT_TRUE(handles.insert(query).second);
        EXPECT_TRUE(handles.insert(Counter(query)).second);
        EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
    }
}

TEST_F(SimulatedMachine, RejectsInvalidArguments) {
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    ASSERT_EQ(pdh->collect(query), ERROR_SUCCESS);
    HANDLE handle = nullptr;
    double value = 0;
    EXPECT_EQ(pdh->open(nullptr, 0, nullptr), Status(PDH_INVALID_ARGUMENT));
    EXPECT_EQ(pdh->open(L"C:\\log.blg", 0, &handle), Status(PDH_FILE_NOT_FOUND));
    EXPECT_EQ(pdh->add(query, nullptr, 0, &handle), Status(PDH_INVALID_ARGUMENT));
    EXPECT_EQ(pdh->add(query, kQueueLength, 0, nullptr), Status(PDH_INVALID_ARGUMENT));
    EXPECT_EQ(pdh->format(counter, PDH_FMT_DOUBLE, nullptr, nullptr), Status(PDH_INVALID_ARGUMENT));
    for (const DWORD format : {PDH_FMT_LONG, PDH_FMT_LARGE, PDH_FMT_DOUBLE | PDH_FMT_1000})
        EXPECT_EQ(Format(counter, value, format), Status(PDH_INVALID_ARGUMENT)) << format;
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
}

TEST_F(SimulatedMachine, FailsEveryCallOfPdhAsPlanned) {
    constexpr DWORD code = PDH_MEMORY_ALLOCATION_FAILURE;
    const PDH_HQUERY query = Query();
    const PDH_HCOUNTER counter = Counter(query);
    HANDLE handle = nullptr;
    double value = 5;
    for (const char *function :
         {"PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "PdhGetFormattedCounterValue", "PdhCloseQuery"})
        (void)simulation.GetFaults().FailEvery(function, code);
    EXPECT_EQ(pdh->open(nullptr, 0, &handle), Status(code));
    EXPECT_EQ(pdh->add(query, kQueueLength, 0, &handle), Status(code));
    EXPECT_EQ(pdh->collect(query), Status(code));
    EXPECT_EQ(Format(counter, value), Status(code));
    EXPECT_EQ(pdh->close(query), Status(code));
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(value, 5);
    simulation.GetFaults().Clear();
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS) << "the failed call has not closed it";
}

TEST_F(SimulatedMachine, CountsOpenQueries) {
    const PDH_HQUERY first = Query();
    const PDH_HQUERY second = Query();
    (void)Counter(second);
    EXPECT_EQ(OpenQueries(), 2U);
    EXPECT_EQ(pdh->close(first), ERROR_SUCCESS);
    EXPECT_EQ(OpenQueries(), 1U);
    EXPECT_NE(pdh->close(first), ERROR_SUCCESS);
    EXPECT_EQ(OpenQueries(), 1U);
    (void)simulation.GetFaults().FailNth("PdhCloseQuery", 1, PDH_INVALID_ARGUMENT);
    EXPECT_NE(pdh->close(second), ERROR_SUCCESS);
    EXPECT_EQ(OpenQueries(), 1U) << "still open";
    EXPECT_EQ(pdh->close(second), ERROR_SUCCESS);
    EXPECT_EQ(OpenQueries(), 0U);
}

TEST_F(SimulatedMachine, CountsNoQueryThatFailedToOpen) {
    (void)simulation.GetFaults().FailNth("PdhOpenQueryW", 1, PDH_MEMORY_ALLOCATION_FAILURE);
    PDH_HQUERY query = nullptr;
    EXPECT_NE(pdh->open(nullptr, 0, &query), ERROR_SUCCESS);
    EXPECT_NE(pdh->open(L"log", 0, &query), ERROR_SUCCESS);
    EXPECT_EQ(OpenQueries(), 0U);
}

TEST_F(SimulatedMachine, ReportsWhichQueryIsLeft) {
    const BalanceSnapshot before = simulation.GetBalance().Take();
    const PDH_HQUERY query = Query();
    const std::string difference = simulation.GetBalance().Difference(before, simulation.GetBalance().Take());
    EXPECT_EQ(pdh->close(query), ERROR_SUCCESS);
    EXPECT_NE(difference.find("+ performance query, #"), std::string::npos) << difference;
    EXPECT_NE(difference.find("by PdhOpenQueryW"), std::string::npos) << difference;
}

TEST_F(SimulatedMachine, ReportsItsProcessorsAndLeavesTheOtherFields) {
    SYSTEM_INFO info{};
    SYSTEM_INFO real{};
    {
        const InsideSimulator inside;
        GetSystemInfo(&real);
    }
    machine.processorCount = 61;
    GetSystemInfo(&info);
    EXPECT_EQ(info.dwNumberOfProcessors, 61U);
    EXPECT_EQ(info.dwPageSize, real.dwPageSize);
    EXPECT_EQ(info.lpMaximumApplicationAddress, real.lpMaximumApplicationAddress);
    EXPECT_EQ(info.dwActiveProcessorMask, real.dwActiveProcessorMask);
    machine.processorCount = 0;
    EXPECT_EQ(Processors(), 0U);
}

TEST_F(SimulatedMachine, AlwaysReportsItsProcessors) {
    const auto plan = simulation.GetFaults().FailEvery("GetSystemInfo", ERROR_ACCESS_DENIED);
    EXPECT_EQ(Processors(), 4U);
    EXPECT_FALSE(plan->Hit());
}

TEST_F(SimulatedMachine, ReportsItsMemory) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(status.ullTotalPhys, 8ULL << 30);
    EXPECT_EQ(status.ullAvailPhys, 4ULL << 30);
    EXPECT_EQ(status.dwMemoryLoad, 50U);
    EXPECT_NE(status.ullTotalVirtual, 0U) << "the rest is real";
}

TEST_F(SimulatedMachine, ReportsMemoryThatNoRealMachineHas) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    machine.memoryTotal = 0;
    machine.memoryAvailable = std::numeric_limits<std::uint64_t>::max();
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(status.ullTotalPhys, 0U);
    EXPECT_EQ(status.ullAvailPhys, std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(status.dwMemoryLoad, 0U);
    machine.memoryTotal = std::numeric_limits<std::uint64_t>::max();
    machine.memoryAvailable = 0;
    ASSERT_TRUE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(status.dwMemoryLoad, 100U);
}

TEST_F(SimulatedMachine, ReportsItsMemoryOnlyInAStructOfTheRightSize) {
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status - 1;
    SetLastError(0);
    EXPECT_FALSE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(status.ullTotalPhys, 0U);
}

TEST_F(SimulatedMachine, FailsToReportItsMemoryAsPlanned) {
    (void)simulation.GetFaults().FailNth("GlobalMemoryStatusEx", 1, ERROR_NOT_ENOUGH_MEMORY);
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    EXPECT_FALSE(GlobalMemoryStatusEx(&status));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NOT_ENOUGH_MEMORY));
    EXPECT_EQ(status.ullTotalPhys, 0U);
    EXPECT_TRUE(GlobalMemoryStatusEx(&status));
}

TEST_F(SimulatedMachine, RecordsCallsInOrder) {
    (void)Sample();
    (void)Processors();
    MEMORYSTATUSEX status{};
    status.dwLength = sizeof status;
    (void)GlobalMemoryStatusEx(&status);
    const std::vector<std::string> expected{
        "PdhOpenQueryW", "PdhAddCounterW", "PdhCollectQueryData", "PdhGetFormattedCounterValue",
        "PdhCloseQuery", "GetSystemInfo",  "GlobalMemoryStatusEx"};
    const std::vector<JournalEntry> entries = simulation.GetJournal().Take();
    std::vector<std::string> names;
    for (const JournalEntry &entry : entries)
        names.push_back(entry.function);
    ASSERT_EQ(names, expected);
    EXPECT_NE(entries[1].arguments.find("\"\\System\\Processor Queue Length\""), std::string::npos)
        << entries[1].arguments;
}

// Compares what Windows and Wine 8 have in common with the model. Wine lacks the length of the processor queue, is
// case-sensitive about a path, refuses a log with PDH_INVALID_ARGUMENT, and formats a counter that was never collected.
TEST(RealPerformanceQueries, BehaveLikeTheSimulatedOnes) {
    struct Answers {
        PDH_STATUS opened, source, foreign, empty, closed, closedAgain;
    };
    const auto ask = [] {
        const Pdh pdh(PdhLibrary());
        PDH_HQUERY query = nullptr;
        PDH_HCOUNTER counter = nullptr;
        Answers answers{};
        answers.opened = pdh.open(nullptr, 0, &query);
        EXPECT_NE(query, nullptr);
        answers.foreign = pdh.add(query, L"\\System\\No Such Counter", 0, &counter);
        answers.empty = pdh.collect(query);
        answers.source = pdh.open(nullptr, 0, nullptr);
        answers.closed = pdh.close(query);
        answers.closedAgain = pdh.close(nullptr);
        return answers;
    };
    const Answers real = ask();
    Simulation simulation({.registry = false, .folders = false, .balance = false, .machine = true});
    (void)simulation.Attach(ThisProgram());
    const Answers simulated = ask();
    EXPECT_EQ(simulation.GetJournal().Count("PdhOpenQueryW"), 2U);
    EXPECT_EQ(real.opened, ERROR_SUCCESS);
    EXPECT_EQ(simulated.opened, real.opened);
    EXPECT_EQ(simulated.foreign, real.foreign);
    EXPECT_EQ(simulated.empty, real.empty);
    EXPECT_EQ(simulated.source, real.source);
    EXPECT_EQ(simulated.closed, real.closed);
    EXPECT_EQ(simulated.closedAgain, real.closedAgain);
}
