// Adapters by their devices.
#pragma once

#include <cstddef>
#include <map>
#include <set>

#include <wx/string.h>

#include "TcpAdapter.h"

/// Finds the adapters of a device. A device is an adapter's if its instance id begins with the adapter's component id:
/// so all devices of a model are meant. An adapter whose id couldn't be read has no device, lest every device of the
/// machine be its.
/// compat 107: restarts every device of the same model
class AdaptersByDevice {
public:
    /// @param adapters    must outlive the object.
    /// @param useIpState  takes those that IP is bound to instead of those that the filter is bound to.
    AdaptersByDevice(const TcpAdapterList &adapters, bool useIpState) {
        std::size_t place = 0;
        for (const TcpAdapter &adapter : adapters) {
            ++place;
            if (adapter.componentId.empty() || !(useIpState ? adapter.boundToIp : adapter.boundToFilter))
                continue;
            m_adapters[adapter.componentId].emplace(place, &adapter);
            m_lengths.insert(adapter.componentId.length());
        }
    }

    /// @return the device's adapters by their places in the list.
    [[nodiscard]] std::map<std::size_t, const TcpAdapter *> OfDevice(const wxString &instanceId) const {
        std::map<std::size_t, const TcpAdapter *> found;
        for (const std::size_t length : m_lengths) {
            if (length > instanceId.length())
                break;
            const auto those = m_adapters.find(instanceId.substr(0, length));
            if (those != m_adapters.end())
                found.insert(those->second.begin(), those->second.end());
        }
        return found;
    }

private:
    /// Compares like the C runtime, which folds non-ASCII characters in another way than wxString.
    struct LessAsDeviceId {
        bool operator()(const wxString &left, const wxString &right) const {
            return _wcsicmp(left.wc_str(), right.wc_str()) < 0;
        }
    };
    std::map<wxString, std::map<std::size_t, const TcpAdapter *>, LessAsDeviceId> m_adapters;  ///< By component id.
    std::set<std::size_t> m_lengths;                                                           ///< Of the ids.
};
