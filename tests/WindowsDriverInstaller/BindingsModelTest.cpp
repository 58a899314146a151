// The bindings after an installation on random machines, compared with an independent model.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "BindingsMachines.h"
#include "BindingsModel.h"
#include "DriverFile.h"
#include "InstallFixture.h"
#include "SeededRandom.h"
#include "WindowsFunctions.h"

namespace {

using Bindings::Expectation;
using Bindings::Machine;
using Bindings::NodeBindings;
using Bindings::Outcome;
using Bindings::Reaction;
using Loaded = Machine::Loaded;

/// The default; FC_MACHINES overrides it.
constexpr unsigned kMachines = 2'000;
constexpr unsigned kMachinesIfThorough = 5'000;
constexpr DWORD kComFailure = static_cast<DWORD>(E_FAIL);
constexpr DWORD kSleepBetweenChecksMs = 2'000;

std::wstring WideText(const std::string &text) {
    return {text.begin(), text.end()};
}

std::string NarrowText(const std::wstring &text) {
    std::string narrow;
    for (const wchar_t c : text)
        narrow += static_cast<char>(c);
    return narrow;
}

Simulator::NetworkAdapter ToSimulated(const Bindings::Adapter &adapter) {
    Simulator::NetworkAdapter made;
    made.id = WideText(adapter.componentId);
    made.bindName = WideText(adapter.bindName);
    made.pnpDevNodeId = WideText(adapter.node);
    if (adapter.displayName)
        made.displayName = WideText(*adapter.displayName);
    made.characteristics =
        (adapter.isVirtual ? DWORD{NCF_VIRTUAL} : 0) | (adapter.isPhysical ? DWORD{NCF_PHYSICAL} : 0);
    made.deviceStatus = adapter.deviceStatus;
    made.inIpHelper = adapter.inIpHelper;
    made.mac.assign(adapter.mac.begin(), adapter.mac.end());
    made.ip = adapter.ip;
    made.gateway = adapter.gateway;
    made.openError = adapter.opens ? ERROR_SUCCESS : ERROR_ACCESS_DENIED;
    made.mediaStatus = adapter.media;
    made.frames = 100;
    return made;
}

/// A number from the environment.
std::optional<unsigned> Variable(const char *name) {
    const char *const text = std::getenv(name);
    return text ? std::optional(static_cast<unsigned>(std::strtoul(text, nullptr, 10))) : std::nullopt;
}

/// The lines of one outcome, for comparison and for the reader.
std::vector<std::string> Lines(const Outcome &outcome) {
    const auto binding = [](const std::optional<bool> &is) { return !is ? " -" : *is ? " on" : " off"; };
    std::vector<std::string> lines{
        outcome.succeeded ? "succeeded" : "failed",
        "reboot event " + std::to_string(outcome.rebootEvent),
        "reboot notices " + std::to_string(outcome.rebootNotices),
        "lock notices " + std::to_string(outcome.lockNotices),
        "applies " + std::to_string(outcome.applies),
        outcome.isLocked ? "locked" : "not locked",
    };
    for (const auto &[node, bindings] : outcome.bindings)
        lines.push_back("bindings of " + node + binding(bindings.ip4) + binding(bindings.ip6) +
                        binding(bindings.filter));
    for (const std::string &change : outcome.changes)
        lines.push_back("change: " + change);
    for (const std::string &device : outcome.disabled)
        lines.push_back("disabled: " + device);
    for (const std::string &failure : outcome.failures)
        lines.push_back("reported: " + failure);
    for (const std::string &line : outcome.log)
        lines.push_back("log: " + line);
    return lines;
}

/// The first line that differs, or nothing.
std::string FirstDifference(const Outcome &expected, const Outcome &actual) {
    std::vector<std::string> ours = Lines(expected);
    std::vector<std::string> theirs = Lines(actual);
    const std::size_t size = std::max(ours.size(), theirs.size());
    ours.resize(size, "(nothing)");
    theirs.resize(size, "(nothing)");
    const auto [mine, other] = std::mismatch(ours.begin(), ours.end(), theirs.begin());
    return mine == ours.end() ? "" : "expected: " + *mine + "\n  actual: " + *other + "\n";
}

class BindingsOfRandomMachines : public InstallFixture {
protected:
    BindingsOfRandomMachines() {
        network().OnMoment([this](const Simulator::NetworkMoment &moment) { OnMoment(moment); });
        simulation().GetDevices().OnChange([this](const Simulator::DeviceChange &change) {
            const bool enables = change.state == DICS_ENABLE;
            React(enables ? Reaction::When::Enabled : Reaction::When::Disabled, NarrowText(change.instanceId));
        });
        simulation().Functions().Put<Simulator::System::Sleep>(
            [this, caller = GetCurrentThreadId()](const auto &next, DWORD ms) {
                if (GetCurrentThreadId() == caller)
                    return Simulator::System::Sleep::Real(1);  // it waits for the others, which move the clock
                next(ms);
                if (ms == kSleepBetweenChecksMs)
                    OnSleep();
            },
            Simulator::Depth::Watch);
        Simulator::WriteDriverFile(m_ourVersionFile, kOurVersion);
        ReadVersionsOnce();
        RemoveInfFiles();
        RecordApplyAlone();
    }

    /// Makes the machine, installs the drivers on it, and returns the outcome.
    Outcome InstallOn(const Machine &machine) {
        Put(machine);
        const std::size_t before = simulation().GetDevices().Changes().size();
        (void)simulation().GetJournal().Take();
        const int objects = VtaCore::Control::LiveObjects();
        EXPECT_EQ(lua.Eval("SLB.filter.InstallOrUpdateDriver(dom, ndis, wfp)"), "true");
        AwaitThreads(objects);
        return Collect(before);
    }

    /// The difference; empty if there is none.
    std::string Compare(const Machine &machine) {
        return FirstDifference(Bindings::Expect(machine).outcome, InstallOn(machine));
    }

    Machine Shrink(Machine machine) {
        for (bool smaller = true; smaller;) {
            smaller = false;
            for (const Machine &candidate : Bindings::SmallerMachines(machine)) {
                if (Compare(candidate).empty())
                    continue;
                machine = candidate;
                smaller = true;
                break;
            }
        }
        return machine;
    }

    /// @return whether the outcome is as expected.
    bool Check(unsigned seed) {
        const Machine machine = Bindings::RandomMachine(seed);
        const Expectation expectation = Bindings::Expect(machine);
        for (const std::string &codePath : expectation.codePaths)
            ++m_codePaths[codePath];
        const std::string difference = FirstDifference(expectation.outcome, InstallOn(machine));
        if (difference.empty())
            return true;
        const Machine smallest = Shrink(machine);
        ADD_FAILURE() << difference << "again with FC_SEED=" << seed << "; the smallest such machine:\n"
                      << Bindings::Describe(smallest) << Compare(smallest);
        return false;
    }

    std::map<std::string, unsigned> m_codePaths;

private:
    /// Makes the test faster.
    void RecordApplyAlone() {
        balance().Stop();
        for (const std::string &name : simulation().Functions().Names())
            simulation().GetJournal().Mute(name);
        for (const std::string name : Simulator::NetworkMethods()) {
            if (name != "INetCfg::Apply")
                simulation().GetJournal().Mute(name);
        }
    }

    /// Every file has the same version, and finding it out takes the system long.
    void ReadVersionsOnce() {
        simulation().Functions().Put<Simulator::System::GetFileVersionInfoSizeW>(
            [this](const auto &next, const wchar_t *path, DWORD *unused) {
                if (m_version.empty())
                    m_version.resize(next(path, unused));
                return static_cast<DWORD>(m_version.size());
            });
        simulation().Functions().Put<Simulator::System::GetFileVersionInfoW>(
            [this](const auto &next, const wchar_t *path, DWORD unused, DWORD size, void *data) -> BOOL {
                if (!m_hasVersion)
                    m_hasVersion = next(path, unused, static_cast<DWORD>(m_version.size()), m_version.data()) != FALSE;
                std::copy_n(m_version.begin(), std::min<std::size_t>(size, m_version.size()),
                            static_cast<BYTE *>(data));
                return m_hasVersion;
            });
    }

    /// The bindings do not depend on the copying of files or the search for INF files, which would take most of the
    /// time.
    void RemoveInfFiles() {
        for (const std::filesystem::path &folder :
             {NdisFolder(), std::filesystem::path(WfpFolder()), simulation().GetFolders().Inf()}) {
            for (const auto &file : std::filesystem::directory_iterator(folder)) {
                if (file.path().extension() == L".inf")
                    std::filesystem::remove(file.path());
            }
        }
    }

    void Put(const Machine &machine) {
        m_machine = machine;
        m_sleeps = 0;
        m_installed = false;
        simulation().GetFaults().Clear();
        PutSystem();
        PutAdapters();
        PutDevices();
        PutDriver();
        if (!machine.fault.function.empty() && !machine.fault.onceInstalled)
            PlanFault();
        dom.Set("vtp.filter.ForceDriverInstall", machine.kind == Machine::Kind::Forced);
    }

    void PutSystem() {
        Simulator::Machine &system = simulation().GetMachine();
        system.osMajor = m_machine.osMajor;
        system.osMinor = m_machine.osMinor;
        system.productType = m_machine.isServer ? VER_NT_SERVER : VER_NT_WORKSTATION;
    }

    void PutAdapters() {
        network().Use([this](Simulator::NetworkState &state) {
            state = {};
            Simulator::InstallableComponent filter{.component = {.id = L"qbimvta"}};
            if (m_machine.answer == Machine::Answer::Failure)
                filter.results = {E_FAIL, E_FAIL, E_FAIL};
            else if (m_machine.answer == Machine::Answer::Reboot)
                filter.results = {0x0004A020, 0x0004A020, 0x0004A020};
            state.installable.push_back(filter);
        });
        if (m_machine.hasIp4)
            network().Put({.id = L"ms_tcpip", .classGuid = GUID_DEVCLASS_NETTRANS});
        if (m_machine.hasIp6)
            network().Put({.id = L"ms_tcpip6", .classGuid = GUID_DEVCLASS_NETTRANS});
        for (const Bindings::Adapter &adapter : m_machine.adapters)
            network().PutAdapter(ToSimulated(adapter));
        if (m_machine.kind != Machine::Kind::Fresh)
            network().Put({.id = L"qbimvta"});
        for (const auto &[node, bindings] : m_machine.bindings) {
            PutBinding(node, L"ms_tcpip", bindings.ip4);
            PutBinding(node, L"ms_tcpip6", bindings.ip6);
            PutBinding(node, L"qbimvta", bindings.filter);
        }
    }

    void PutBinding(const std::string &node, const std::wstring &component, const std::optional<bool> &enabled) {
        if (enabled)
            network().Bind(WideText(node), component, *enabled);
    }

    void PutDevices() {
        Simulator::DeviceManager &devices = simulation().GetDevices();
        for (const std::wstring &instanceId : m_deviceIds)
            devices.Remove(instanceId);
        m_deviceIds = {kFirst, kSecond, L"PCI\\VEN_8086&DEV_100E"};
        for (const std::wstring &instanceId : m_deviceIds)
            devices.Remove(instanceId);
        m_deviceIds.clear();
        for (const Bindings::Device &device : m_machine.devices) {
            m_deviceIds.push_back(WideText(device.instanceId));
            devices.Put({.instanceId = m_deviceIds.back(),
                         .description = L"Device",
                         .present = device.isPresent,
                         .changeError = device.changeFails ? DWORD{ERROR_GEN_FAILURE} : DWORD{ERROR_SUCCESS},
                         .disabled = device.isDisabled});
        }
    }

    void PutDriver() {
        const std::filesystem::path installed = simulation().GetFolders().System32() / L"drivers" / L"qbimvta.sys";
        std::filesystem::remove(installed);
        SetRunningVersion(std::nullopt);
        if (m_machine.kind == Machine::Kind::Upgrade)
            SetRunningVersion(Version{1, 0, 0, 0});
        else if (m_machine.kind == Machine::Kind::Forced)
            SetRunningVersion(Version{3, 0, 0, 0});
        else if (m_machine.kind == Machine::Kind::Reinstall)
            std::filesystem::copy_file(m_ourVersionFile, installed);
    }

    void PlanFault() {
        const bool isCom =
            m_machine.fault.function.find("::") != std::string::npos || m_machine.fault.function.starts_with("Co");
        (void)simulation().GetFaults().FailNth(m_machine.fault.function, m_machine.fault.nth,
                                               isCom ? kComFailure : DWORD{ERROR_GEN_FAILURE});
    }

    void OnMoment(const Simulator::NetworkMoment &moment) {
        using What = Simulator::NetworkMoment::What;
        switch (moment.what) {
            case What::Installed:
                OnInstalled();
                break;
            case What::Removed:
                SetRunningVersion(std::nullopt);
                break;
            case What::BindingDisabled:
                if (m_machine.loaded == Loaded::OldUntilUnbound)
                    SetRunningVersion(std::nullopt);
                React(Reaction::When::Unbound, NarrowText(moment.adapter));
                break;
            case What::BindingEnabled:
                React(Reaction::When::Bound, NarrowText(moment.adapter));
                break;
        }
    }

    void OnInstalled() {
        if (m_machine.loaded == Loaded::Ours)
            SetRunningVersion(kOurVersion);
        else if (m_machine.loaded != Loaded::None)
            SetRunningVersion(Version{1, 0, 0, 0});
        if (!m_installed && !m_machine.fault.function.empty() && m_machine.fault.onceInstalled)
            PlanFault();
        m_installed = true;
        React(Reaction::When::Installed, "");
    }

    void OnSleep() {
        ++m_sleeps;
        for (const Reaction &reaction : m_machine.reactions) {
            if (reaction.when == Reaction::When::Slept && reaction.nth == m_sleeps)
                Change(reaction);
        }
    }

    void React(Reaction::When when, const std::string &of) {
        for (const Reaction &reaction : m_machine.reactions) {
            if (reaction.when == when && (when == Reaction::When::Installed || reaction.of == of))
                Change(reaction);
        }
    }

    void Change(const Reaction &reaction) {
        using What = Reaction::What;
        const std::wstring node = WideText(reaction.node);
        if (reaction.what == What::Vanishes)
            network().RemoveAdapter(node);
        else if (reaction.what == What::Appears)
            Appear(reaction.node);
        else if (reaction.what == What::LockedByAnother)
            network().LockFromElsewhere(L"Another program");
        else if (reaction.what == What::LockedByNamesake)
            network().LockFromElsewhere(L"Quillon Vantry Agent Installer");
        else if (reaction.what == What::Unlocked)
            network().Use([](Simulator::NetworkState &state) { state.lock.reset(); });
        else
            (void)network().ChangeAdapter(
                node, [&](Simulator::NetworkAdapter &adapter) { ChangeAdapter(adapter, reaction); });
    }

    void Appear(const std::string &node) {
        for (const Bindings::Adapter &adapter : m_machine.later) {
            if (adapter.node == node && !IsThere(node))
                network().PutAdapter(ToSimulated(adapter));
        }
    }

    bool IsThere(const std::string &node) {
        return network().ChangeAdapter(WideText(node), [](Simulator::NetworkAdapter &) {});
    }

    void ChangeAdapter(Simulator::NetworkAdapter &adapter, const Reaction &reaction) {
        using What = Reaction::What;
        if (reaction.what == What::GoesOffline)
            adapter.mediaStatus = 1;
        else if (reaction.what == What::GoesOnline)
            adapter.mediaStatus = 0;
        else if (reaction.what == What::TurnsSilent)
            adapter.openError = ERROR_ACCESS_DENIED;
        else if (reaction.what == What::LosesAddress)
            adapter.ip = "0.0.0.0";
        else if (reaction.what == What::LosesGateway)
            adapter.gateway = "0.0.0.0";
        else if (reaction.what == What::GoesBad)
            adapter.deviceStatus = 22;
        else
            Repair(adapter, reaction.node);
    }

    void Repair(Simulator::NetworkAdapter &adapter, const std::string &node) {
        const auto first = std::find_if(m_machine.adapters.begin(), m_machine.adapters.end(),
                                        [&](const Bindings::Adapter &each) { return each.node == node; });
        if (first != m_machine.adapters.end())
            adapter = ToSimulated(*first);
    }

    Outcome Collect(std::size_t changesBefore) {
        Removal records;
        TakeRecords(records);
        Outcome outcome;
        CollectEvents(records, outcome);
        for (const VtaCore::Control::Notification &notice : records.notifications)
            ++(notice.kind == VtaCore::Control::Notification::Kind::Reboot ? outcome.rebootNotices
                                                                           : outcome.lockNotices);
        outcome.applies = static_cast<unsigned>(simulation().GetJournal().Count("INetCfg::Apply"));
        CollectDevices(changesBefore, outcome);
        CollectBindings(outcome);
        for (const std::string &line : records.ThreadLog()) {
            const std::string text = line.substr(std::min(line.find_first_not_of(' '), line.size()));
            if (!text.starts_with('>') && !text.starts_with('<'))
                outcome.log.push_back(text);
        }
        return outcome;
    }

    static void CollectEvents(const Removal &records, Outcome &outcome) {
        unsigned ends = 0;
        for (const std::string &event : records.events) {
            const std::size_t bar = event.find('|');
            const std::string number = event.substr(0, bar);
            if (number == "3005")
                outcome.failures.push_back(event.substr(bar + 1, event.find('|', bar + 1) - bar - 1));
            outcome.succeeded = outcome.succeeded || number == "1007";
            outcome.rebootEvent = outcome.rebootEvent || number == "1006";
            ends += number == "1004" || number == "1007" ? 1U : 0U;
        }
        EXPECT_EQ(ends, 1U) << "events of the outcome";
    }

    void CollectDevices(std::size_t changesBefore, Outcome &outcome) {
        const std::vector<Simulator::DeviceChange> changes = simulation().GetDevices().Changes();
        for (std::size_t i = changesBefore; i < changes.size(); ++i)
            outcome.changes.push_back((changes[i].state == DICS_ENABLE ? "enable " : "disable ") +
                                      std::to_string(changes[i].scope) + " " + NarrowText(changes[i].instanceId));
        for (const std::wstring &instanceId : m_deviceIds) {
            if (!simulation().GetDevices().IsEnabled(instanceId))
                outcome.disabled.insert(NarrowText(instanceId));
        }
    }

    void CollectBindings(Outcome &outcome) {
        const Simulator::NetworkState state = network().Read();
        for (const Simulator::NetworkComponent &component : state.components) {
            if (!component.adapter)
                continue;
            const std::wstring &node = component.adapter->pnpDevNodeId;
            outcome.bindings[NarrowText(node)] = {.ip4 = network().Binding(node, L"ms_tcpip"),
                                                  .ip6 = network().Binding(node, L"ms_tcpip6"),
                                                  .filter = network().Binding(node, L"qbimvta")};
        }
        outcome.isLocked = state.lock.has_value();
    }

    Machine m_machine;
    unsigned m_sleeps = 0;
    bool m_installed = false;
    std::vector<std::wstring> m_deviceIds;
    std::vector<BYTE> m_version;
    bool m_hasVersion = false;
    const std::filesystem::path m_ourVersionFile = simulation().GetFolders().Temp() / L"ours.sys";
};

TEST_F(BindingsOfRandomMachines, MatchTheModelAfterAnInstallation) {
    const std::optional<unsigned> only = Variable("FC_SEED");
    if (only)
        std::cout << Bindings::Describe(Bindings::RandomMachine(*only));
    const unsigned first =
        only.value_or(static_cast<unsigned>(testing::UnitTest::GetInstance()->random_seed()) * 10'000);
    const unsigned machines = only ? 1 : Variable("FC_MACHINES").value_or(Thoroughly(kMachines, kMachinesIfThorough));
    std::cout << machines << " machines from FC_SEED=" << first << '\n';
    for (unsigned i = 0, failures = 0; i < machines && failures < 3; ++i)
        failures += Check(first + i) ? 0U : 1U;
    for (const auto &[codePath, count] : m_codePaths)
        std::cout << codePath << ": " << count << '\n';
    if (machines < kMachines)
        return;  // too few to exercise everything
    for (const char *codePath :
         {"restored", "unbound for no TCP/IP", "unbound for a duplicate MAC", "left alone as RAS", "recovery 0",
          "healthy after recovery 0", "recovery 0 without the lock", "recovery 1 by filter", "recovery 1 by IP",
          "stale driver", "healthy", "offline before", "succeeded", "failed", "fault met"})
        EXPECT_GE(m_codePaths[codePath], machines / 1'000) << codePath;
}

}  // namespace
