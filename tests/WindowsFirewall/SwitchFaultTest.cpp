// Off and on again, with each call failed in turn, compared with an independent model.

#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FirewallFixture.h"
#include "SwitchModel.h"

namespace {

using Simulator::Service;
using Simulator::ServiceStatus;

/// A function of each kind, and the codes that it may fail with.
using Codes = std::vector<DWORD>;
const Codes kComCodes{static_cast<DWORD>(E_ACCESSDENIED), static_cast<DWORD>(RPC_E_DISCONNECTED)};
const Codes kRegistryCodes{ERROR_ACCESS_DENIED, ERROR_FILE_NOT_FOUND};
const Codes kServiceCodes{ERROR_ACCESS_DENIED, ERROR_SERVICE_DOES_NOT_EXIST, ERROR_SERVICE_DISABLED};
const std::map<std::string, Codes> kFailing{
    {"GetVersionExW", {ERROR_INVALID_PARAMETER, ERROR_ACCESS_DENIED}},
    {"CoInitializeEx", {static_cast<DWORD>(E_OUTOFMEMORY), static_cast<DWORD>(RPC_E_CHANGED_MODE)}},
    {"CoCreateInstance", kComCodes},
    {"INetFwMgr::get_LocalPolicy", kComCodes},
    {"INetFwPolicy::get_CurrentProfile", kComCodes},
    {"INetFwProfile::get_FirewallEnabled", kComCodes},
    {"INetFwProfile::put_FirewallEnabled", kComCodes},
    {"INetFwPolicy2::get_FirewallEnabled", kComCodes},
    {"INetFwPolicy2::put_FirewallEnabled", kComCodes},
    {"RegCreateKeyW", kRegistryCodes},
    {"RegOpenKeyW", kRegistryCodes},
    {"RegSetValueExW", kRegistryCodes},
    {"RegQueryValueExW", kRegistryCodes},
    {"RegDeleteValueW", kRegistryCodes},
    {"RegCloseKey", kRegistryCodes},
    {"OpenSCManagerW", kServiceCodes},
    {"OpenServiceW", kServiceCodes},
    {"QueryServiceStatus", kServiceCodes},
    {"StartServiceW", kServiceCodes},
    {"ControlService", kServiceCodes},
    {"ChangeServiceConfigW", kServiceCodes},
    {"CloseServiceHandle", kServiceCodes},
};

/// The machine with each of these values in the registry, and without the key.
std::vector<SwitchWorld> WithFlags(const SwitchWorld &plain, const std::vector<std::optional<StoredFlag>> &flags) {
    std::vector<SwitchWorld> worlds{plain};
    for (const auto &flag : flags) {
        worlds.push_back(plain);
        worlds.back().hasKey = true;
        worlds.back().flag = flag;
    }
    return worlds;
}

const StoredFlag kText{REG_SZ, {'7', 0}};
const StoredFlag kLongText{REG_SZ, {'7', 0, '7', 0, 0, 0}};

std::vector<SwitchWorld> NewSystems() {
    std::vector<SwitchWorld> worlds;
    for (unsigned mask = 0; mask < 8; ++mask) {
        SwitchWorld world;
        world.firewall.domainProfile = (mask & 1) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        world.firewall.privateProfile = (mask & 2) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        world.firewall.publicProfile = (mask & 4) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
        world.service = Service{.status = {SERVICE_RUNNING}};
        for (const SwitchWorld &with :
             WithFlags(world, {std::nullopt, MaskFlag(0), MaskFlag(5), MaskFlag(8), kText, kLongText}))
            worlds.push_back(with);
    }
    return worlds;
}

std::vector<std::optional<Service>> Services() {
    constexpr ServiceStatus stopped{SERVICE_STOPPED};
    constexpr ServiceStatus running{SERVICE_RUNNING};
    constexpr ServiceStatus starting{SERVICE_START_PENDING};
    constexpr ServiceStatus stopping{SERVICE_STOP_PENDING};
    constexpr ServiceStatus died{.state = SERVICE_STOPPED, .exitCode = 1066, .specificExitCode = 42};
    return {
        std::nullopt,
        Service{.status = running},
        Service{.status = stopped, .starting = {starting, running}, .stopping = {stopping, stopped}},
        Service{.status = stopped, .startType = SERVICE_DISABLED},
        Service{.status = stopping, .coming = {stopping, stopping, stopped}},
        Service{.status = starting, .coming = {starting, running}},
        Service{.status = stopped, .starting = {starting, died}},
        Service{.status = stopped, .starting = {running, stopped}},
        Service{.status = stopped, .starting = {running, {SERVICE_PAUSED}}},
        Service{.status = stopped, .startType = SERVICE_DISABLED, .configError = ERROR_ACCESS_DENIED},
        Service{.status = stopped, .controlError = ERROR_INVALID_SERVICE_CONTROL},
    };
}

std::vector<SwitchWorld> OldSystems() {
    std::vector<SwitchWorld> worlds;
    for (const VARIANT_BOOL current : {VARIANT_TRUE, VARIANT_FALSE}) {
        for (const std::optional<Service> &service : Services()) {
            SwitchWorld world;
            world.osMajor = 5;
            world.firewall.currentProfile = current;
            world.service = service;
            for (const SwitchWorld &with : WithFlags(world, {MaskFlag(8), kText}))
                worlds.push_back(with);
        }
    }
    return worlds;
}

class FirewallInTrouble : public FirewallFixture {
protected:
    FirewallInTrouble() { simulation().GetCom().threadsHaveApartments = true; }

    /// One failing call at every place, on every machine.
    void TryAll(const std::vector<SwitchWorld> &worlds, unsigned atLeast) {
        for (std::size_t number = 0; number < worlds.size() && !HasFailure(); ++number) {
            SCOPED_TRACE(testing::Message() << "machine " << number);
            TryEach(worlds[number]);
        }
        std::printf("%zu machines, %u combinations of one and a failing call\n", worlds.size(), m_tried);
        EXPECT_GT(m_tried, atLeast);
    }

private:
    /// First without a failure: up to the failing call all runs are the same, so this run lists the calls.
    void TryEach(const SwitchWorld &world) {
        std::map<std::string, unsigned> before;
        for (const auto &[function, codes] : kFailing)
            before[function] = faults().Calls(function);
        m_isKnown = false;
        Try(world, {});
        std::map<std::string, unsigned> calls;
        for (const auto &[function, codes] : kFailing)
            calls[function] = faults().Calls(function) - before[function];
        for (const auto &[function, codes] : kFailing) {
            for (const DWORD code : codes) {
                for (unsigned nth = 1; nth <= calls[function] && !HasFailure(); ++nth, ++m_tried) {
                    SCOPED_TRACE(testing::Message() << function << ", call " << nth << ", code " << code);
                    Try(world, {function, nth, code});
                }
            }
        }
    }

    void Try(const SwitchWorld &world, const SwitchFault &fault) {
        if (!m_isKnown || fault.function == "GetVersionExW")
            Reload();
        m_isKnown = fault.function != "GetVersionExW";
        Put(world);
        SwitchModel model(world, fault);
        const auto plan = faults().FailNth(fault.function, fault.nth, fault.code);
        const Lines off = TurnOff();
        LeftThings left = Left();
        std::size_t comEnds = Calls("CoUninitialize").size();
        const Lines on = TurnOn();
        for (const auto &[kind, count] : Left())
            left[kind] += count;
        comEnds += Calls("CoUninitialize").size();

        model.TurnOff();
        model.TurnOn();
        EXPECT_EQ(plan->Hit(), fault.nth != 0);
        EXPECT_EQ(model.hit, fault.nth != 0);
        EXPECT_EQ(off + on, model.log);
        EXPECT_EQ(left, model.left);
        EXPECT_EQ(comEnds, model.comEnds);
        ExpectWorld(model.world);
    }

    void Put(const SwitchWorld &world) {
        faults().Clear();
        simulation().GetFirewall().Put(world.firewall);
        simulation().GetRegistry().Remove(HKEY_LOCAL_MACHINE, kAgentKey);
        if (world.hasKey)
            simulation().GetRegistry().PutKey(HKEY_LOCAL_MACHINE, kAgentKey);
        if (world.flag)
            PutFlag(*world.flag);
        if (world.service)
            PutService(*world.service);
        else
            simulation().GetServices().Remove(kOldService);
        simulation().GetMachine().osMajor = world.osMajor;
    }

    void ExpectWorld(const SwitchWorld &world) {
        EXPECT_EQ(simulation().GetFirewall().Read(), world.firewall);
        EXPECT_EQ(simulation().GetRegistry().HasKey(HKEY_LOCAL_MACHINE, kAgentKey), world.hasKey);
        EXPECT_EQ(Flag(), world.flag);
        if (!world.service)
            return;
        EXPECT_EQ(OldService().status, world.service->status);
        EXPECT_EQ(OldService().startType, world.service->startType);
    }

    bool m_isKnown = false;  ///< Whether the module has queried the machine's version, and got it.
    unsigned m_tried = 0;
};

TEST_F(FirewallInTrouble, DoesOnANewSystemWhatTheModelDoes) {
    TryAll(NewSystems(), 1'000);
}

TEST_F(FirewallInTrouble, DoesOnAnOldSystemWhatTheModelDoes) {
    TryAll(OldSystems(), 1'000);
}

}  // namespace
