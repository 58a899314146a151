// Start, stop and restart of real kernel drivers through SLB.filter, with the system's own service manager.

#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

#include "LogCollector.h"
#include "ModuleFixture.h"

namespace {

struct CloseReal {
    void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using RealHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseReal>;

/// A kernel driver's service, removed again at the end; the driver lies beside the program.
class InstalledDriver {
public:
    explicit InstalledDriver(const wchar_t *name) : m_manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_ALL_ACCESS)) {
        std::wstring path(MAX_PATH, L'\0');
        path.resize(GetModuleFileNameW(nullptr, path.data(), MAX_PATH));
        path.replace(path.rfind(L'\\') + 1, path.npos, L"empty-driver.sys");
        m_service.reset(CreateServiceW(m_manager.get(), name, nullptr, SERVICE_ALL_ACCESS, SERVICE_KERNEL_DRIVER,
                                       SERVICE_DEMAND_START, SERVICE_ERROR_NORMAL, path.c_str(), nullptr, nullptr,
                                       nullptr, nullptr, nullptr));
        if (!m_service)
            throw std::runtime_error("a service can't be made: error " + std::to_string(GetLastError()));
    }
    ~InstalledDriver() {
        SERVICE_STATUS status{};
        (void)ControlService(m_service.get(), SERVICE_CONTROL_STOP, &status);
        (void)DeleteService(m_service.get());
    }
    InstalledDriver(const InstalledDriver &) = delete;
    InstalledDriver &operator=(const InstalledDriver &) = delete;

    [[nodiscard]] DWORD State() const {
        SERVICE_STATUS status{};
        EXPECT_TRUE(QueryServiceStatus(m_service.get(), &status));
        return status.dwCurrentState;
    }
    /// @return whether the service reaches the state within ten seconds.
    [[nodiscard]] bool Reaches(DWORD state) const {
        for (int i = 0; i < 200 && State() != state; ++i)
            Sleep(50);
        return State() == state;
    }

private:
    RealHandle m_manager;
    RealHandle m_service;
};

class RealService : public ModuleFixture {
protected:
    RealService() : ModuleFixture({.registry = false, .folders = false, .machine = false, .services = false}) {
        simulation().GetClock().RunFast(1);
    }
    ~RealService() override {
        EXPECT_TRUE(log.Take().empty());
        EXPECT_EQ(balance().Take().Count(Simulator::Kind::kService), 0U);
    }

    std::string Call(const std::string &call) { return lua.Eval("SLB.filter." + call); }

    LogCollector log;
};

TEST_F(RealService, StartsStopsAndRestarts) {
    const InstalledDriver callout(L"qbimwfp");
    const InstalledDriver ndis(L"qbimvta");
    for (const auto &[suffix, driver] : {std::pair{"WFP", &callout}, std::pair{"NDIS", &ndis}}) {
        const std::string name = std::string(suffix) + "Driver";
        EXPECT_EQ(Call("Start" + name + "(true)"), "true");
        EXPECT_EQ(driver->State(), static_cast<DWORD>(SERVICE_RUNNING));
        EXPECT_EQ(Call("Restart" + name + "(true)"), "true");
        EXPECT_EQ(driver->State(), static_cast<DWORD>(SERVICE_RUNNING));
        EXPECT_EQ(Call("Stop" + name + "(true)"), "true");
        EXPECT_EQ(driver->State(), static_cast<DWORD>(SERVICE_STOPPED));
        EXPECT_EQ(Call("Start" + name + "(false)"), "true");
        EXPECT_TRUE(driver->Reaches(SERVICE_RUNNING));
        EXPECT_EQ(Call("Stop" + name + "(false)"), "true");
        EXPECT_TRUE(driver->Reaches(SERVICE_STOPPED));
        EXPECT_EQ(Call("Restart" + name + "(true)"), "true") << "it was stopped before";
        EXPECT_EQ(driver->State(), static_cast<DWORD>(SERVICE_RUNNING));
    }
}

}  // namespace
