// What happens to adapters when the program under test does something: a network that breaks, and one that recovers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Lock.h"
#include "NetworkAdapter.h"

/// Changes of an adapter; other properties stay.
struct AdapterChange {
    std::optional<std::string> ip;  ///< "0.0.0.0" for none, as for the gateway.
    std::optional<std::string> gateway;
    std::optional<std::uint64_t> frames;
    std::optional<bool> connected;
    std::optional<bool> gatewayAnswers;  ///< To ARP requests.
    std::optional<ULONG> status;         ///< Of its device; 0 means no problem.
};

void ChangeAdapter(Simulator::NetworkAdapter &adapter, const AdapterChange &change);

/// An event of the network.
struct NetworkHappening {
    enum class What { Installed, Removed, Bound, Unbound, Enabled, Disabled };
    What what;
    std::wstring component;  ///< Empty for the last two, which concern a device.
    std::wstring adapter;    ///< In a rule: empty for any.
};

struct NetworkRule {
    NetworkHappening when;
    std::wstring node;  ///< The adapter to change.
    AdapterChange change;
};

/// Any thread.
class NetworkRules {
public:
    /// @return its number, from 0.
    std::size_t Add(NetworkRule rule);
    /// Whether its event has not happened yet.
    bool IsOpen(std::size_t number) const;
    /// The rules that this event triggers, in order. Each applies once.
    std::vector<NetworkRule> Take(const NetworkHappening &happening);

private:
    mutable Simulator::Lock m_lock;
    std::map<std::size_t, NetworkRule> m_rules;
    std::size_t m_added = 0;
};
