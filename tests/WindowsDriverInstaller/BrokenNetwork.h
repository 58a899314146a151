// A network that breaks when the filter is installed, and what makes it recover.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Simulation.h"

/// Breaks adapters when the product does something, repairs them when it tries a recovery, and records its checks. It
/// takes the machine's observer of devices; moments of the network must be passed to it. A check is a call of
/// GetAdaptersInfo after the ARP cache was read; several at the same time are one check. Calls that a fault plan fails
/// are not counted.
class BrokenNetwork {
public:
    /// What repairs an adapter.
    enum class Recovery {
        None,
        Rebinding,  ///< Enabling the filter's binding to it.
        Restart,    ///< Enabling its device; the instance id is that of the adapter.
    };
    using Damage = std::function<void(Simulator::NetworkAdapter &)>;

    /// To be constructed before the calls that it observes, and destroyed before the simulation.
    explicit BrokenNetwork(Simulator::Simulation &simulation);
    ~BrokenNetwork();
    BrokenNetwork(const BrokenNetwork &) = delete;
    BrokenNetwork &operator=(const BrokenNetwork &) = delete;

    /// The adapter breaks when the filter is installed.
    /// @param node  its pnpDevNodeId.
    void Break(const std::wstring &node, Recovery recovery, Damage damage = &Disconnect);
    /// Called right before the product's n-th check, n from 1.
    void AtCheck(std::size_t nth, std::function<void()> event) { m_atCheck[nth] = std::move(event); }
    /// Breaks the adapter now.
    void BreakNow(const std::wstring &node);
    /// Restores the adapter to its state before it broke.
    void Repair(const std::wstring &node);
    /// To be called with each moment of the network.
    void OnMoment(const Simulator::NetworkMoment &moment);

    /// The times of the checks: simulated milliseconds since the ARP cache was read.
    [[nodiscard]] const std::vector<std::uint64_t> &Checks() const { return m_checks; }

    static void Disconnect(Simulator::NetworkAdapter &adapter) { adapter.mediaStatus = 1; }

private:
    struct BrokenAdapter {
        Recovery recovery;
        Damage damage;
        bool broken = false;
        Simulator::NetworkAdapter before{};
    };

    void OnChange(const Simulator::DeviceChange &change);
    void BeginCheck();
    void Check();

    // Events come from one thread after another.
    Simulator::Simulation &m_simulation;
    std::map<std::wstring, BrokenAdapter> m_brokenAdapters;
    std::map<std::size_t, std::function<void()>> m_atCheck;
    bool m_checking = false;
    std::uint64_t m_checkBegan = 0;
    std::vector<std::uint64_t> m_checks;
};
