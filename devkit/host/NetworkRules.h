// What becomes of adapters when the program under test has done something: a network that breaks, and one that heals.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Lock.h"
#include "NetworkAdapter.h"

/// What is to be another at an adapter; the rest of it stays.
struct AdapterChange {
    std::optional<std::string> ip;  ///< "0.0.0.0" for none, as is it for the gateway.
    std::optional<std::string> gateway;
    std::optional<std::uint64_t> frames;
    std::optional<bool> connected;
    std::optional<bool> gatewayAnswers;  ///< To ARP.
    std::optional<ULONG> status;         ///< Of its device; 0 where all is well.
};

void ChangeAdapter(Simulator::NetworkAdapter &adapter, const AdapterChange &change);

/// A thing that happens to the network.
struct NetworkHappening {
    enum class What { Installed, Removed, Bound, Unbound, Enabled, Disabled };
    What what;
    std::wstring component;  ///< Empty for the last two, which are a device's.
    std::wstring adapter;    ///< In a rule: empty for any.
};

struct NetworkRule {
    NetworkHappening when;
    std::wstring node;  ///< Of the adapter that is changed.
    AdapterChange change;
};

/// Any thread.
class NetworkRules {
public:
    /// @return its number, from 0.
    std::size_t Add(NetworkRule rule);
    /// Whether its moment is still to come.
    bool IsOpen(std::size_t number) const;
    /// The rules that this is the moment of, in their order. They are used up by it.
    std::vector<NetworkRule> Take(const NetworkHappening &happening);

private:
    mutable Simulator::Lock m_lock;
    std::map<std::size_t, NetworkRule> m_rules;
    std::size_t m_added = 0;
};
