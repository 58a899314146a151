// A network that breaks when the filter is installed, and what heals it.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "Simulation.h"

/// Hurts adapters by what the program does, heals them by its cures, and follows its looks at them. It takes the
/// machine's observer of devices; moments of the network it must be handed. A look is a call of GetAdaptersInfo after
/// the ARP cache was read; several at one moment are one look. Calls that a fault plan fails are not followed.
class BrokenNetwork {
public:
    /// What heals an adapter.
    enum class Cure {
        None,
        Rebinding,  ///< The filter's binding to it that is enabled.
        Restart,    ///< Its device that is enabled; the instance id is that of the adapter.
    };
    using Harm = std::function<void(Simulator::NetworkAdapter &)>;

    /// To be made before the calls that it follows, and gone before the simulation.
    explicit BrokenNetwork(Simulator::Simulation &simulation);
    ~BrokenNetwork();
    BrokenNetwork(const BrokenNetwork &) = delete;
    BrokenNetwork &operator=(const BrokenNetwork &) = delete;

    /// The adapter breaks when the filter is installed.
    /// @param node  its pnpDevNodeId.
    void Break(const std::wstring &node, Cure cure, Harm harm = &Disconnect);
    /// Happens right before the program looks for the n-th time, n from 1.
    void AtLook(std::size_t nth, std::function<void()> event) { m_atLook[nth] = std::move(event); }
    /// Hurts the adapter now.
    void Hurt(const std::wstring &node);
    /// Puts the adapter back as it was when it was hurt.
    void Heal(const std::wstring &node);
    /// To be called with each moment of the network.
    void OnMoment(const Simulator::NetworkMoment &moment);

    /// When the program looked: simulated milliseconds since it read the ARP cache.
    [[nodiscard]] const std::vector<std::uint64_t> &Looks() const { return m_looks; }

    static void Disconnect(Simulator::NetworkAdapter &adapter) { adapter.mediaStatus = 1; }

private:
    struct Patient {
        Cure cure;
        Harm harm;
        bool broken = false;
        Simulator::NetworkAdapter before{};
    };

    void OnChange(const Simulator::DeviceChange &change);
    void BeginCheck();
    void Look();

    // What happens comes from one thread after another.
    Simulator::Simulation &m_simulation;
    std::map<std::wstring, Patient> m_patients;
    std::map<std::size_t, std::function<void()>> m_atLook;
    bool m_checking = false;
    std::uint64_t m_checkBegan = 0;
    std::vector<std::uint64_t> m_looks;
};
