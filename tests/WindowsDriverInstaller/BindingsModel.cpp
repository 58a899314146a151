#include "BindingsModel.h"

#include <algorithm>
#include <cctype>
#include <cstddef>
#include <utility>

namespace Bindings {

namespace {

constexpr unsigned kUnknownMedia = 0xFFFFFFFF;
constexpr unsigned kGlobal = 1;
constexpr unsigned kInProfile = 2;
constexpr std::size_t kRecordsOfFirstBuffer = 16;  ///< What fits into the 11,264 bytes of the first attempt.
constexpr char kFilter[] = "qbimvta";

using When = Reaction::When;
using What = Reaction::What;

/// An adapter at one point in time.
struct Record {
    bool boundToIp = false;
    bool boundToFilter = false;
    std::string bindName;
    std::optional<std::string> ip, gateway;
    bool isVirtual = false;
    bool isPhysical = false;
    std::string componentId;
    unsigned deviceStatus = 0;
    std::string mac;
    std::string node;
    std::string displayName;
    unsigned media = kUnknownMedia;
};
using Records = std::vector<Record>;

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

/// An adapter whose component id could not be read has no device.
bool IsDeviceOf(const std::string &instanceId, const std::string &componentId) {
    return !componentId.empty() && Lower(instanceId.substr(0, componentId.size())) == Lower(componentId);
}

std::string Hex(const std::string &bytes) {
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += digits[byte >> 4];
        text += digits[byte & 15];
    }
    return text;
}

std::optional<std::string> Address(const std::string &text) {
    if (text == "0.0.0.0" || text == "255.255.255.255")
        return std::nullopt;
    return text;
}

bool IsValidMac(const std::string &mac) {
    return mac.size() >= 6 && mac.find_first_not_of('\0') != mac.npos;
}

/// A dial-in adapter of the system.
bool IsRas(const Record &record) {
    return record.isVirtual && record.mac.substr(2, 4) == " RAS";
}

// ---- The machine as it changes

class World {
public:
    explicit World(const Machine &machine) : m_machine(machine) {
        for (const Adapter &adapter : machine.adapters)
            Put(adapter);
        m_hasFilter = machine.kind != Machine::Kind::Fresh;
        m_driverAnswers = machine.kind == Machine::Kind::Upgrade || machine.kind == Machine::Kind::Forced;
    }

    /// Whether this call of the function fails.
    bool Fails(const std::string &function) {
        const Fault &fault = m_machine.fault;
        if (fault.function != function || (fault.onceInstalled && !m_installed) || ++m_calls != fault.nth)
            return false;
        codePaths.insert("fault met");
        return true;
    }

    void Report(const std::string &call) { outcome.failures.push_back(call); }
    void Log(const std::string &line) { outcome.log.push_back(line); }

    void RemoveFilter() {
        if (!m_hasFilter)
            return;
        ++outcome.applies;
        m_hasFilter = false;
        m_driverAnswers = false;
        for (auto &[node, bindings] : m_machine.bindings)
            bindings.filter.reset();
    }

    /// @return whether it is present then.
    bool InstallFilter() {
        if (m_machine.answer == Machine::Answer::Failure)
            return false;
        const int attempts = m_machine.answer == Machine::Answer::Reboot ? 3 : 1;
        for (int i = 0; i < attempts; ++i) {
            if (!m_hasFilter) {
                for (const auto &[key, adapter] : adapters)
                    m_machine.bindings[adapter.node].filter = true;
            }
            m_hasFilter = true;
            m_installed = true;
            m_driverAnswers = m_machine.loaded != Machine::Loaded::None;
            m_driverIsOurs = m_machine.loaded == Machine::Loaded::Ours;
            Happens(When::Installed, "");
        }
        return true;
    }

    [[nodiscard]] bool DriverAnswers() const { return m_driverAnswers; }
    [[nodiscard]] bool DriverIsOurs() const { return m_driverIsOurs; }

    void SleepTwoSeconds() {
        ++m_sleeps;
        for (const Reaction &reaction : m_machine.reactions) {
            if (reaction.when == When::Slept && reaction.nth == m_sleeps)
                Change(reaction);
        }
    }

    [[nodiscard]] bool HasFilter() const { return m_hasFilter; }
    [[nodiscard]] bool HasIp4() const { return m_machine.hasIp4; }
    [[nodiscard]] bool HasIp6() const { return m_machine.hasIp6; }
    [[nodiscard]] const Machine &TheMachine() const { return m_machine; }
    NodeBindings &BindingsOf(const std::string &node) { return m_machine.bindings[node]; }

    [[nodiscard]] bool IsThere(unsigned key) const { return adapters.count(key) != 0; }
    /// In enumeration order.
    [[nodiscard]] std::vector<unsigned> Keys() const {
        std::vector<unsigned> keys;
        for (const auto &[key, adapter] : adapters)
            keys.push_back(key);
        return keys;
    }

    // Lock.
    enum class Lock { Free, Ours, Another, Namesake };
    [[nodiscard]] bool MayWrite() const { return lock == Lock::Ours; }

    void SetFilter(const std::string &node, bool enabled) {
        std::optional<bool> &filter = BindingsOf(node).filter;
        if (!filter || *filter == enabled)
            return;
        filter = enabled;
        if (!enabled && m_machine.loaded == Machine::Loaded::OldUntilUnbound)
            m_driverAnswers = false;
        Happens(enabled ? When::Bound : When::Unbound, node);
    }

    /// @return false if it failed.
    bool ChangeDevice(const std::string &instanceId, bool enable, unsigned scope) {
        if (Fails("SetupDiCallClassInstaller"))
            return false;
        outcome.changes.push_back((enable ? "enable " : "disable ") + std::to_string(scope) + " " + instanceId);
        const auto device = std::find_if(m_machine.devices.begin(), m_machine.devices.end(),
                                         [&](const Device &each) { return each.instanceId == instanceId; });
        if (device->changeFails)
            return false;
        (scope == kGlobal ? device->isDisabled : device->isDisabledInProfile) = !enable;
        Happens(enable ? When::Enabled : When::Disabled, instanceId);
        return true;
    }

    void Finish() {
        for (const auto &[key, adapter] : adapters) {
            NodeBindings bindings = BindingsOf(adapter.node);
            if (!m_machine.hasIp4)
                bindings.ip4.reset();
            if (!m_machine.hasIp6)
                bindings.ip6.reset();
            if (!m_hasFilter)
                bindings.filter.reset();
            outcome.bindings[adapter.node] = bindings;
        }
        for (const Device &device : m_machine.devices) {
            if (device.isDisabled || device.isDisabledInProfile)
                outcome.disabled.insert(device.instanceId);
        }
        outcome.isLocked = lock != Lock::Free;
    }

    std::map<unsigned, Adapter> adapters;
    Lock lock = Lock::Free;
    Outcome outcome;
    std::set<std::string> codePaths;

private:
    void Put(const Adapter &adapter) { adapters.emplace(++m_lastKey, adapter); }

    void Happens(When when, const std::string &of) {
        for (const Reaction &reaction : m_machine.reactions) {
            if (reaction.when == when && (when == When::Installed || reaction.of == of))
                Change(reaction);
        }
    }

    void Change(const Reaction &reaction) {
        switch (reaction.what) {
            case What::Vanishes:
                std::erase_if(adapters, [&](const auto &each) { return each.second.node == reaction.node; });
                break;
            case What::Appears:
                Appear(reaction.node);
                break;
            case What::LockedByAnother:
                lock = Lock::Another;
                break;
            case What::LockedByNamesake:
                lock = Lock::Namesake;
                break;
            case What::Unlocked:
                lock = Lock::Free;
                break;
            default:
                if (Adapter *adapter = Find(reaction.node))
                    ChangeAdapter(*adapter, reaction.what);
        }
    }

    Adapter *Find(const std::string &node) {
        for (auto &[key, adapter] : adapters) {
            if (adapter.node == node)
                return &adapter;
        }
        return nullptr;
    }

    void Appear(const std::string &node) {
        if (Find(node) != nullptr)
            return;
        for (const Adapter &adapter : m_machine.later) {
            if (adapter.node == node)
                Put(adapter);
        }
    }

    void ChangeAdapter(Adapter &adapter, What what) {
        const auto first = std::find_if(m_machine.adapters.begin(), m_machine.adapters.end(),
                                        [&](const Adapter &each) { return each.node == adapter.node; });
        const Adapter &asBefore = first == m_machine.adapters.end() ? adapter : *first;
        if (what == What::GoesOffline)
            adapter.media = 1;
        else if (what == What::GoesOnline)
            adapter.media = 0;
        else if (what == What::TurnsSilent)
            adapter.opens = false;
        else if (what == What::LosesAddress)
            adapter.ip = "0.0.0.0";
        else if (what == What::LosesGateway)
            adapter.gateway = "0.0.0.0";
        else if (what == What::GoesBad)
            adapter.deviceStatus = 22;
        else if (what == What::GetsWell)
            adapter = asBefore;
    }

    Machine m_machine;
    unsigned m_lastKey = 0;
    unsigned m_calls = 0;
    unsigned m_sleeps = 0;
    bool m_hasFilter;
    bool m_installed = false;
    bool m_driverAnswers;
    bool m_driverIsOurs = false;
};

// ---- Opening the network configuration

bool AcquireLock(World &world) {
    if (world.Fails("INetCfg::QueryInterface")) {
        world.Report("INetCfg::QueryInterface(IID_INetCfgLock)");
        return false;
    }
    if (world.Fails("INetCfgLock::AcquireWriteLock") || world.lock == World::Lock::Another) {
        if (world.lock == World::Lock::Another)
            ++world.outcome.lockNotices;
        world.Report("INetCfgLock::AcquireWriteLock");
        return false;
    }
    if (world.lock == World::Lock::Free)
        world.lock = World::Lock::Ours;
    return true;
}

void ReleaseLock(World &world) {
    if (world.Fails("INetCfgLock::ReleaseWriteLock") || !world.MayWrite())
        world.Report("INetCfgLock::ReleaseWriteLock");
    else
        world.lock = World::Lock::Free;
}

bool Acquire(World &world, bool writeLock) {
    if (world.Fails("CoInitializeEx")) {
        world.Report("CoInitializeEx");
        return false;
    }
    if (world.Fails("CoCreateInstance")) {
        world.Report("CoCreateInstance(CLSID_CNetCfg)");
        return false;
    }
    if (writeLock && !AcquireLock(world))
        return false;
    if (!world.Fails("INetCfg::Initialize"))
        return true;
    world.Report("INetCfg::Initialize");
    if (writeLock)
        ReleaseLock(world);
    return false;
}

void Release(World &world, bool writeLock) {
    if (world.Fails("INetCfg::Uninitialize"))
        world.Report("INetCfg::Uninitialize");  // the lock stays held then
    else if (writeLock && world.Fails("INetCfg::QueryInterface"))
        world.Report("INetCfg::QueryInterface(IID_INetCfgLock)");
    else if (writeLock)
        ReleaseLock(world);
}

// ---- Reading the adapters

/// The adapters that IP Helper reports; none if it fails.
std::vector<Adapter> ReadIpHelper(World &world) {
    std::vector<Adapter> told;
    for (const auto &[key, adapter] : world.adapters) {
        if (adapter.inIpHelper)
            told.push_back(adapter);
    }
    const bool failed = world.Fails("GetAdaptersInfo") || told.empty() ||
                        (told.size() > kRecordsOfFirstBuffer && world.Fails("GetAdaptersInfo"));
    if (!failed)
        return told;
    world.Report("GetAdaptersInfo()");
    return {};
}

void TakeAddresses(Record &record, const std::vector<Adapter> &ipHelper) {
    const auto found = std::find_if(ipHelper.begin(), ipHelper.end(), [&](const Adapter &adapter) {
        return Lower(adapter.bindName) == Lower(record.bindName);
    });
    if (found == ipHelper.end())
        return;
    record.mac = found->mac.substr(0, 8);
    record.ip = Address(found->ip);
    record.gateway = Address(found->gateway);
}

void AskDevice(World &world, Record &record) {
    if (record.bindName.empty())
        return;
    const auto found = std::find_if(world.adapters.begin(), world.adapters.end(), [&](const auto &each) {
        return Lower(each.second.bindName) == Lower(record.bindName);
    });
    if (found == world.adapters.end() || !found->second.opens)
        return;
    const Adapter &device = found->second;
    if (record.mac.empty() && !world.Fails("DeviceIoControl") && device.mac.size() <= 16)
        record.mac = device.mac;
    if (!world.Fails("DeviceIoControl"))
        record.media = device.media.value_or(kUnknownMedia);
    if (world.Fails("DeviceIoControl"))
        (void)world.Fails("DeviceIoControl");  // in 4 bytes if those in 8 are not available
}

/// Which of the components above the adapters can be queried.
struct Askable {
    bool ip4, ip6, filter;
};

Askable FindComponents(World &world) {
    const auto find = [&](bool isThere) {
        return !world.Fails("INetCfg::FindComponent") && isThere && !world.Fails("INetCfgComponent::QueryInterface");
    };
    Askable askable{};
    askable.ip4 = find(world.HasIp4());
    askable.ip6 = find(world.HasIp6());
    askable.filter = find(world.HasFilter());
    return askable;
}

Record ReadAdapter(World &world, const Adapter &adapter, const std::vector<Adapter> &ipHelper, const Askable &askable) {
    Record record;
    record.isVirtual = adapter.isVirtual;
    record.isPhysical = adapter.isPhysical;
    if (!world.Fails("INetCfgComponent::GetBindName"))
        record.bindName = adapter.bindName;
    if (!world.Fails("INetCfgComponent::GetDeviceStatus"))
        record.deviceStatus = adapter.deviceStatus;
    if (!world.Fails("INetCfgComponent::GetPnpDevNodeId"))
        record.node = adapter.node;
    if (!world.Fails("INetCfgComponent::GetId"))
        record.componentId = adapter.componentId;
    const bool hasName = !world.Fails("INetCfgComponent::GetDisplayName") && adapter.displayName;
    record.displayName = hasName ? *adapter.displayName : record.node;
    TakeAddresses(record, ipHelper);
    AskDevice(world, record);
    const NodeBindings &bindings = world.BindingsOf(adapter.node);
    const auto isBound = [&](bool canAsk, const std::optional<bool> &binding) {
        return canAsk && !world.Fails("INetCfgComponentBindings::IsBoundTo") && binding.value_or(false);
    };
    record.boundToIp = isBound(askable.ip4, bindings.ip4) || isBound(askable.ip6, bindings.ip6);
    record.boundToFilter = isBound(askable.filter, bindings.filter);
    return record;
}

Records ReadAdapters(World &world) {
    Records records;
    if (!Acquire(world, false))
        return records;
    const std::vector<Adapter> ipHelper = ReadIpHelper(world);
    const Askable askable = FindComponents(world);
    if (!world.Fails("INetCfg::EnumComponents")) {
        for (const auto &[key, adapter] : world.adapters) {
            const bool told = !world.Fails("INetCfgComponent::GetCharacteristics");
            if (told && (adapter.isVirtual || adapter.isPhysical))
                records.push_back(ReadAdapter(world, adapter, ipHelper, askable));
        }
    }
    Release(world, false);
    return records;
}

// ---- Changing the bindings

/// One pass over the adapters, with the changes not yet applied.
class BindingChange {
public:
    /// @param records  null without a list.
    BindingChange(World &world, const Records *records, bool useIpState)
        : m_world(world), m_records(records), m_useIpState(useIpState) {}

    void Visit(unsigned key) {
        if (m_world.Fails("INetCfgComponent::GetCharacteristics") || !m_world.IsThere(key) ||
            m_world.Fails("INetCfgComponent::GetPnpDevNodeId"))
            return;
        const Adapter adapter = m_world.adapters.at(key);
        const bool hasName = !m_world.Fails("INetCfgComponent::GetDisplayName") && adapter.displayName;
        m_name = hasName ? *adapter.displayName : adapter.node;
        m_node = adapter.node;
        if (m_world.Fails("INetCfgComponent::QueryInterface") ||
            m_world.Fails("INetCfgComponentBindings::EnumBindingPaths"))
            return;
        const NodeBindings bindings = m_world.BindingsOf(m_node);
        if (m_world.HasIp4() && bindings.ip4)
            (void)VisitPath(*bindings.ip4);
        if (m_world.HasIp6() && bindings.ip6)
            (void)VisitPath(*bindings.ip6);
        if (!m_world.HasFilter() || !bindings.filter)
            return;
        const auto pending = std::find_if(m_pending.begin(), m_pending.end(),
                                          [&](const auto &change) { return change.first == m_node; });
        const auto [reached, enabled] = VisitPath(pending == m_pending.end() ? *bindings.filter : pending->second);
        if (reached)
            Decide(enabled);
    }

private:
    struct Path {
        bool reached;  ///< To the id of the upper component.
        bool enabled;
    };
    Path VisitPath(bool isEnabled) {
        Path path{};
        path.enabled = !m_world.Fails("INetCfgBindingPath::IsEnabled") && isEnabled;
        path.reached = !m_world.Fails("INetCfgBindingPath::EnumBindingInterfaces") &&
                       !m_world.Fails("INetCfgBindingInterface::GetUpperComponent") &&
                       !m_world.Fails("INetCfgComponent::GetId");
        return path;
    }

    void Decide(bool enabled) {
        m_world.Log("Adapter '" + m_name + "' is" + (enabled ? "" : " not") + " bound to " + kFilter);
        if (!NeedsChange(enabled)) {
            m_world.Log("No need to change the bindings of adapter '" + m_name + "'");
            return;
        }
        if (m_world.Fails("INetCfgBindingPath::Enable") || !m_world.MayWrite()) {
            m_world.Report("INetCfgBindingInterface::Enable()");
            return;
        }
        m_world.Log((enabled ? "Disabling" : "Enabling") + std::string(" binding from '") + m_name + "' -> " + kFilter);
        std::erase_if(m_pending, [&](const auto &change) { return change.first == m_node; });
        m_pending.emplace_back(m_node, !enabled);
        ++m_world.outcome.applies;
        if (m_world.Fails("INetCfg::Apply")) {
            m_world.Report("INetCfg::Apply()");
            return;
        }
        for (const auto &[node, enable] : std::exchange(m_pending, {}))
            m_world.SetFilter(node, enable);
    }

    bool NeedsChange(bool enabled) {
        if (m_records == nullptr)
            return enabled;
        const auto found = std::find_if(m_records->begin(), m_records->end(),
                                        [&](const Record &record) { return record.node == m_node; });
        if (found == m_records->end())
            return false;
        m_world.Log("Original bindings of adapter '" + m_name + "' are ms_tcpip=" + (found->boundToIp ? "1" : "0") +
                    " " + kFilter + "=" + (found->boundToFilter ? "1" : "0"));
        return (m_useIpState ? found->boundToIp : found->boundToFilter) != enabled;
    }

    World &m_world;
    const Records *m_records;
    const bool m_useIpState;
    std::string m_name;
    std::string m_node;
    std::vector<std::pair<std::string, bool>> m_pending;
};

bool SetFilterBindings(World &world, const Records *records, bool useIpState) {
    if (!Acquire(world, true))
        return false;
    if (!world.Fails("INetCfg::EnumComponents")) {
        BindingChange change(world, records, useIpState);
        for (const unsigned key : world.Keys())
            change.Visit(key);
    }
    Release(world, true);
    return true;
}

// ---- After a fresh installation

bool LooksForDuplicates(const Machine &machine) {
    return machine.isServer && (machine.osMajor < 6 || (machine.osMajor == 6 && machine.osMinor < 2));
}

void FindDuplicate(World &world, const Records &records, const Record &record, std::set<std::string> &macs) {
    for (const Record &other : records) {
        if (!IsValidMac(other.mac) || other.mac != record.mac || other.node == record.node)
            continue;
        macs.insert(record.mac);
        world.Log("Adapter '" + record.displayName + "' has the same MAC (" + Hex(record.mac) + ") as adapter '" +
                  other.displayName + "'");
        return;
    }
}

void MarkDuplicates(World &world, const Records &records, const std::set<std::string> &macs, Records &toUnbind) {
    for (const std::string &mac : macs) {
        for (const Record &record : records) {
            const bool isMarked = std::any_of(toUnbind.begin(), toUnbind.end(),
                                              [&](const Record &marked) { return marked.node == record.node; });
            if (record.mac != mac || !record.isPhysical || isMarked)
                continue;
            world.Log("Marking physical adapter '" + record.displayName + "' with duplicate MAC " + Hex(mac) +
                      " to be unbound from QBIMVTA");
            toUnbind.push_back(record);
            world.codePaths.insert("unbound for a duplicate MAC");
        }
    }
}

void UnbindUnsuitable(World &world) {
    const Records records = ReadAdapters(world);
    Records toUnbind;
    std::set<std::string> macs;
    for (const Record &record : records) {
        if (!IsValidMac(record.mac)) {
            world.Log("Adapter '" + record.displayName + "' has an invalid MAC - ignoring it");
        } else if (IsRas(record)) {
            world.codePaths.insert("left alone as RAS");
        } else if (record.boundToFilter && !record.boundToIp) {
            world.Log("Adapter '" + record.displayName +
                      "' is not bound to TCPIP - marking it to be unbound from QBIMVTA");
            toUnbind.push_back(record);
            world.codePaths.insert("unbound for no TCP/IP");
        } else if (LooksForDuplicates(world.TheMachine())) {
            FindDuplicate(world, records, record, macs);
        }
    }
    MarkDuplicates(world, records, macs, toUnbind);
    for (Record &record : toUnbind)
        record.boundToFilter = false;
    if (!toUnbind.empty())
        (void)SetFilterBindings(world, &toUnbind, false);
}

// ---- The health of the network, and its recovery

bool IsHealthy(const Records &before, const Record &now) {
    if (!now.boundToFilter)
        return true;
    const auto found = std::find_if(before.begin(), before.end(),
                                    [&](const Record &record) { return record.bindName == now.bindName; });
    if (found == before.end())
        return true;
    return !(found->media == 0 && now.media != 0) && !(found->deviceStatus == 0 && now.deviceStatus != 0) &&
           !(found->ip && !now.ip) && !(found->gateway && !now.gateway);
}

/// @return whether all adapters are healthy at one of three checks.
bool GetsHealthy(World &world, Records &stillUnhealthy, Records &current) {
    for (int check = 0; check < 3; ++check) {
        world.SleepTwoSeconds();
        current = ReadAdapters(world);
        std::erase_if(current, [&](const Record &record) { return IsHealthy(stillUnhealthy, record); });
        if (current.empty())
            return true;
        std::erase_if(stillUnhealthy, [&](const Record &record) {
            return std::none_of(current.begin(), current.end(),
                                [&](const Record &unhealthy) { return unhealthy.bindName == record.bindName; });
        });
    }
    return false;
}

/// @return whether the device was restarted.
bool TurnDevice(World &world, const std::string &instanceId, bool enable) {
    if (world.Fails("SetupDiSetClassInstallParamsW"))
        return false;
    (void)world.ChangeDevice(instanceId, enable, enable ? kGlobal : kInProfile);
    if (enable && !world.Fails("SetupDiSetClassInstallParamsW"))
        (void)world.ChangeDevice(instanceId, true, kInProfile);
    return true;
}

bool TurnAdapters(World &world, const Records &records, bool enable, bool useIpState) {
    if (world.Fails("SetupDiGetClassDevsW")) {
        world.Report("SetupDiGetClassDevs");
        return false;
    }
    bool acted = false;
    const std::vector<Device> devices = world.TheMachine().devices;
    for (const Device &device : devices) {
        for (const Record &record : records) {
            if (!device.isPresent || !IsDeviceOf(device.instanceId, record.componentId) ||
                !(useIpState ? record.boundToIp : record.boundToFilter))
                continue;
            world.Log((enable ? "Enabling" : "Disabling") + std::string(" adapter '") +
                      record.displayName.substr(0, 64) + "'");
            acted = TurnDevice(world, device.instanceId, enable) || acted;
        }
    }
    return acted;
}

void Rebind(World &world, const Records &stillUnhealthy, bool upgraded) {
    world.codePaths.insert("recovery 0");
    world.Log(std::string("Network doesn't appear healthy - unbinding & rebinding ") + kFilter);
    if (SetFilterBindings(world, &stillUnhealthy, false))
        (void)SetFilterBindings(world, &stillUnhealthy, !upgraded);
    else
        world.codePaths.insert("recovery 0 without the lock");
}

void Restart(World &world, const Records &current) {
    world.Log(std::string("Network still doesn't appear healthy - enabling & disabling adapters bound to ") + kFilter);
    bool useIp = false;
    const bool acted = TurnAdapters(world, current, false, false);
    if (!acted) {
        useIp = true;
        world.Log(std::string("No adapters are bound to ") + kFilter +
                  " - enabling and disabling adapters bound to IP");
        if (TurnAdapters(world, current, false, true))
            world.codePaths.insert("recovery 1 by IP");
    } else {
        world.codePaths.insert("recovery 1 by filter");
    }
    world.SleepTwoSeconds();
    (void)TurnAdapters(world, current, true, useIp);
}

bool CheckHealth(World &world, const Records &before, bool upgraded) {
    Records stillUnhealthy = before;
    Records current;
    if (GetsHealthy(world, stillUnhealthy, current)) {
        world.codePaths.insert("healthy");
        return true;
    }
    Rebind(world, stillUnhealthy, upgraded);
    if (GetsHealthy(world, stillUnhealthy, current)) {
        world.codePaths.insert("healthy after recovery 0");
        return true;
    }
    Restart(world, current);
    return false;
}

// ---- The installation

bool IsUpgrade(const Machine &machine) {
    return machine.kind == Machine::Kind::Upgrade || machine.kind == Machine::Kind::Forced;
}

/// What the worker does. @return whether it succeeded.
bool Work(World &world) {
    world.RemoveFilter();
    if (world.TheMachine().answer != Machine::Answer::Success)
        world.Report("INetCfgClassSetup::Install()");
    const bool isThere = world.InstallFilter();
    bool succeeded = isThere;
    if (isThere) {
        ++world.outcome.applies;
        succeeded = !world.Fails("INetCfg::Apply");
        if (!succeeded)
            world.Report("INetCfg::Apply");
    }
    world.lock = world.lock == World::Lock::Free ? World::Lock::Ours : world.lock;
    Release(world, true);
    if (succeeded && world.TheMachine().answer == Machine::Answer::Reboot)
        world.outcome.rebootEvent = true;
    return succeeded;
}

void RebindStaleDriver(World &world) {
    if (!world.DriverAnswers() || world.DriverIsOurs())
        return;
    world.codePaths.insert("stale driver");
    world.Log(
        "Installation succeeded but the wrong driver version is still loaded. Trying an unbind/bind to see if that "
        "fixes it.");
    const Records fresh = ReadAdapters(world);
    (void)SetFilterBindings(world, nullptr, false);
    (void)SetFilterBindings(world, &fresh, false);
    const std::string version = world.DriverAnswers() ? "1.0.0.0" : "0.0.0.0";
    world.Log("Rebinding didn't help - driver " + version + " is still loaded. Setting the reboot-required flag.");
    world.outcome.rebootEvent = true;
}

bool Attempt(World &world, const Records &before) {
    const bool succeeded = Work(world);
    if (IsUpgrade(world.TheMachine())) {
        if (!succeeded)
            return false;
        world.Log("Restoring network bindings.");
        const unsigned applies = world.outcome.applies;
        (void)SetFilterBindings(world, &before, false);
        if (world.outcome.applies != applies)
            world.codePaths.insert("restored");
    } else {
        UnbindUnsuitable(world);
        if (!succeeded)
            return false;
    }
    RebindStaleDriver(world);
    return true;
}

}  // namespace

Expectation Expect(const Machine &machine) {
    World world(machine);
    const Records before = ReadAdapters(world);
    world.outcome.succeeded = Attempt(world, before);
    world.codePaths.insert(world.outcome.succeeded ? "succeeded" : "failed");
    if (world.outcome.rebootEvent)
        ++world.outcome.rebootNotices;
    if (std::any_of(before.begin(), before.end(), [](const Record &record) { return record.media == 0; })) {
        world.SleepTwoSeconds();
        if (!CheckHealth(world, before, IsUpgrade(machine)) && !world.outcome.rebootEvent)
            ++world.outcome.rebootNotices;
    } else {
        world.codePaths.insert("offline before");
    }
    world.Finish();
    return {world.outcome, world.codePaths};
}

}  // namespace Bindings
