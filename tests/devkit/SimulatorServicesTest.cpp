#include "ServiceManager.h"

#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <windows.h>

#include "Simulation.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

constexpr DWORD kOpenQuery = SERVICE_QUERY_STATUS | SERVICE_START | SERVICE_STOP;

/// This program on a machine with one stopped service, "driver".
class SimulatedServices : public ::testing::Test {
protected:
    SimulatedServices() {
        (void)simulation.Attach(ThisProgram());
        services.Put(L"driver", {});
        manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
    }
    ~SimulatedServices() override { EXPECT_TRUE(CloseServiceHandle(manager)); }

    SC_HANDLE Open(const wchar_t *name, DWORD access = kOpenQuery) const { return OpenServiceW(manager, name, access); }
    static ServiceStatus Query(SC_HANDLE service) {
        SERVICE_STATUS status{};
        EXPECT_TRUE(QueryServiceStatus(service, &status));
        return {status.dwCurrentState, status.dwCheckPoint, status.dwWaitHint};
    }
    static DWORD Stop(SC_HANDLE service) {
        SERVICE_STATUS status{};
        return ErrorOf(ControlService(service, SERVICE_CONTROL_STOP, &status));
    }
    static DWORD Start(SC_HANDLE service) { return ErrorOf(StartServiceW(service, 0, nullptr)); }

    Simulation simulation{{.registry = false, .folders = false}};
    ServiceManager &services = simulation.GetServices();
    SC_HANDLE manager = nullptr;
};

}  // namespace

TEST_F(SimulatedServices, StartAndStopByTheirNameCaseInsensitively) {
    const SC_HANDLE service = Open(L"DRIVER");
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_SERVICE_NOT_ACTIVE));
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SERVICE_ALREADY_RUNNING));
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_SERVICE_CANNOT_ACCEPT_CTRL)) << "not yet running";
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_RUNNING});
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(services.Get(L"driver").status, ServiceStatus{SERVICE_STOP_PENDING});
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_STOPPED});
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, StepThroughTheirScriptAndStayAtItsEnd) {
    const std::vector<ServiceStatus> script{{SERVICE_START_PENDING, 1, 2'000}, {SERVICE_PAUSED, 7, 3}};
    services.Put(L"driver", {.starting = script});
    const SC_HANDLE service = Open(L"driver");
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_STOPPED});
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SUCCESS));
    for (const ServiceStatus &status : {script[0], script[1], script[1]})
        EXPECT_EQ(Query(service), status);
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, FailWithTheConfiguredErrors) {
    services.Put(L"driver", {.startError = ERROR_FILE_NOT_FOUND, .controlError = ERROR_BUSY});
    const SC_HANDLE service = Open(L"driver");
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_BUSY));
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_STOPPED});
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, CannotBeAccessedWithoutTheRightNameHandleOrAccess) {
    EXPECT_EQ(Open(L"other"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
    const SC_HANDLE service = Open(L"driver", SERVICE_QUERY_STATUS);
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(Start(manager), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(OpenServiceW(service, L"driver", kOpenQuery), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseServiceHandle(service));
    SERVICE_STATUS status{};
    status.dwCurrentState = 99;
    EXPECT_EQ(ErrorOf(QueryServiceStatus(service, &status)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_EQ(status.dwCurrentState, 99U) << "left alone";
    EXPECT_EQ(ErrorOf(CloseServiceHandle(service)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
}

TEST_F(SimulatedServices, CannotBeQueriedAfterRemoval) {
    const SC_HANDLE service = Open(L"driver");
    services.Remove(L"Driver");
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SERVICE_MARKED_FOR_DELETE));
    EXPECT_EQ(Open(L"driver"), nullptr);
    EXPECT_THROW((void)services.Get(L"driver"), std::out_of_range);
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, AreDeletedWhenTheLastHandleToThemIsClosed) {
    services.Put(L"other", {});
    const SC_HANDLE other = Open(L"other");
    const SC_HANDLE service = Open(L"driver", SERVICE_ALL_ACCESS);
    const SC_HANDLE second = Open(L"DRIVER");
    EXPECT_EQ(ErrorOf(DeleteService(service)), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(ErrorOf(DeleteService(service)), static_cast<DWORD>(ERROR_SERVICE_MARKED_FOR_DELETE));
    EXPECT_TRUE(services.Get(L"driver").markedForDelete);
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SERVICE_MARKED_FOR_DELETE));
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_STOPPED});
    EXPECT_TRUE(CloseServiceHandle(service));
    const SC_HANDLE third = Open(L"driver");
    EXPECT_NE(third, nullptr) << "still there";
    EXPECT_TRUE(CloseServiceHandle(second));
    EXPECT_TRUE(services.Has(L"driver"));
    EXPECT_TRUE(CloseServiceHandle(third));
    EXPECT_FALSE(services.Has(L"driver"));
    EXPECT_EQ(Open(L"driver"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SERVICE_DOES_NOT_EXIST));
    EXPECT_TRUE(CloseServiceHandle(other));
    EXPECT_TRUE(services.Has(L"other"));
}

TEST_F(SimulatedServices, CannotBeDeletedWithoutTheRightOrWithAConfiguredError) {
    const SC_HANDLE reader = Open(L"driver");
    EXPECT_EQ(ErrorOf(DeleteService(reader)), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(ErrorOf(DeleteService(manager)), static_cast<DWORD>(ERROR_INVALID_HANDLE));
    EXPECT_TRUE(CloseServiceHandle(reader));
    services.Put(L"driver", {.deleteError = ERROR_BUSY});
    const SC_HANDLE service = Open(L"driver", DELETE);
    EXPECT_EQ(ErrorOf(DeleteService(service)), static_cast<DWORD>(ERROR_BUSY));
    (void)simulation.GetFaults().FailNth("DeleteService", 1, ERROR_GEN_FAILURE);
    EXPECT_EQ(ErrorOf(DeleteService(service)), static_cast<DWORD>(ERROR_GEN_FAILURE));
    EXPECT_TRUE(CloseServiceHandle(service));
    EXPECT_TRUE(services.Has(L"driver"));
}

TEST_F(SimulatedServices, CountOpenHandlesAndNeverReuseOne) {
    std::set<SC_HANDLE> handles{manager};
    const auto open = [this] { return simulation.GetBalance().Take().Count(Kind::kService); };
    EXPECT_EQ(open(), 1U);
    for (int i = 0; i < 100; ++i) {
        const SC_HANDLE service = Open(L"driver");
        EXPECT_TRUE(handles.insert(service).second);
        EXPECT_EQ(open(), 2U);
        EXPECT_TRUE(CloseServiceHandle(service));
    }
    EXPECT_EQ(open(), 1U);
}

TEST_F(SimulatedServices, FailAsPlannedAndAreInTheJournal) {
    (void)simulation.GetJournal().Take();
    (void)simulation.GetFaults().FailNth("OpenServiceW", 1, ERROR_ACCESS_DENIED);
    EXPECT_EQ(Open(L"driver"), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(simulation.GetJournal().Names(), std::vector<std::string>{"OpenServiceW"});
}

TEST_F(SimulatedServices, StartOnlyWhenTheyAreNotDisabled) {
    const auto change = [](SC_HANDLE service, DWORD startType) {
        return ErrorOf(ChangeServiceConfigW(service, SERVICE_NO_CHANGE, startType, SERVICE_NO_CHANGE, nullptr, nullptr,
                                            nullptr, nullptr, nullptr, nullptr, nullptr));
    };
    services.Put(L"driver", {.startType = SERVICE_DISABLED});
    const SC_HANDLE service = Open(L"driver", kOpenQuery | SERVICE_CHANGE_CONFIG);
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SERVICE_DISABLED));
    EXPECT_EQ(change(service, SERVICE_NO_CHANGE), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(services.Get(L"driver").startType, static_cast<DWORD>(SERVICE_DISABLED));
    EXPECT_EQ(change(service, 5), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    EXPECT_EQ(change(service, SERVICE_DEMAND_START), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(Start(service), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(change(service, SERVICE_DISABLED), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_RUNNING}) << "it runs on";
    services.Put(L"driver", {.configError = ERROR_DATABASE_DOES_NOT_EXIST});
    EXPECT_EQ(change(service, SERVICE_DISABLED), static_cast<DWORD>(ERROR_DATABASE_DOES_NOT_EXIST));
    EXPECT_TRUE(CloseServiceHandle(service));
    const SC_HANDLE reader = Open(L"driver");
    EXPECT_EQ(change(reader, SERVICE_DISABLED), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_TRUE(CloseServiceHandle(reader));
}

TEST_F(SimulatedServices, ReportTheirExitCodes) {
    services.Put(L"driver", {.status = {.state = SERVICE_STOPPED, .exitCode = 1066, .specificExitCode = 42}});
    const SC_HANDLE service = Open(L"driver");
    SERVICE_STATUS status{};
    EXPECT_TRUE(QueryServiceStatus(service, &status));
    EXPECT_EQ(status.dwWin32ExitCode, 1066U);
    EXPECT_EQ(status.dwServiceSpecificExitCode, 42U);
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, StopEvenWhileTheyArePaused) {
    services.Put(L"driver", {.status = {SERVICE_PAUSED}});
    const SC_HANDLE service = Open(L"driver");
    SERVICE_STATUS status{};
    EXPECT_TRUE(QueryServiceStatus(service, &status));
    EXPECT_EQ(status.dwControlsAccepted, static_cast<DWORD>(SERVICE_ACCEPT_STOP));
    EXPECT_EQ(Stop(service), static_cast<DWORD>(ERROR_SUCCESS));
    EXPECT_EQ(Query(service), ServiceStatus{SERVICE_STOPPED});
    EXPECT_TRUE(CloseServiceHandle(service));
}

TEST_F(SimulatedServices, BelongToASystemWithTheMachinesVersion) {
    OSVERSIONINFOEXW info{};
    auto *plain = reinterpret_cast<OSVERSIONINFOW *>(&info);
    EXPECT_EQ(ErrorOf(GetVersionExW(plain)), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    info.dwOSVersionInfoSize = sizeof info;
    ASSERT_TRUE(GetVersionExW(plain));
    EXPECT_EQ(info.dwMajorVersion, 10U);
    EXPECT_EQ(info.dwBuildNumber, 19045U);
    simulation.GetMachine().osMajor = 6;
    simulation.GetMachine().osMinor = 2;
    simulation.GetMachine().osBuild = 9200;
    ASSERT_TRUE(GetVersionExW(plain));
    EXPECT_EQ(info.dwMajorVersion, 6U);
    EXPECT_EQ(info.dwMinorVersion, 2U);
    EXPECT_EQ(info.dwBuildNumber, 9200U);
    (void)simulation.GetFaults().FailEvery("GetVersionExW", ERROR_INVALID_PARAMETER);
    EXPECT_EQ(ErrorOf(GetVersionExW(plain)), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
}

TEST(RealServices, BehaveLikeTheSimulatedOnes) {
    // "PlugPlay" runs on every machine; only calls that change nothing are made.
    const auto ask = [] {
        std::vector<DWORD> answers;
        const SC_HANDLE manager = OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT);
        answers.push_back(ErrorOf(manager != nullptr));
        answers.push_back(ErrorOf(OpenServiceW(manager, L"no such service", kOpenQuery) != nullptr));
        const SC_HANDLE service = OpenServiceW(manager, L"plugplay", kOpenQuery);
        answers.push_back(ErrorOf(service != nullptr));
        answers.push_back(ErrorOf(StartServiceW(service, 0, nullptr)));
        SERVICE_STATUS status{};
        answers.push_back(ErrorOf(QueryServiceStatus(service, &status)));
        answers.push_back(status.dwCurrentState);
        answers.push_back(ErrorOf(StartServiceW(manager, 0, nullptr)));
        answers.push_back(ErrorOf(CloseServiceHandle(service)));
        const SC_HANDLE reader = OpenServiceW(manager, L"plugplay", SERVICE_QUERY_STATUS);
        answers.push_back(ErrorOf(StartServiceW(reader, 0, nullptr)));
        answers.push_back(ErrorOf(CloseServiceHandle(reader)));
        answers.push_back(ErrorOf(CloseServiceHandle(manager)));
        answers.push_back(ErrorOf(CloseServiceHandle(nullptr)));
        return answers;
    };
    const std::vector<DWORD> real = ask();
    Simulation simulation({.registry = false, .folders = false, .balance = false});
    simulation.GetServices().Put(L"PlugPlay", {.status = {SERVICE_RUNNING}});
    (void)simulation.Attach(ThisProgram());
    EXPECT_EQ(ask(), real);
    EXPECT_EQ(simulation.GetJournal().Count("OpenServiceW"), 3U);
}
