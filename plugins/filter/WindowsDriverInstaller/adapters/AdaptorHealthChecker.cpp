#include "AdaptorHealthChecker.h"

#include "WindowsDriverInstaller/NdisTrace.h"
#include "common/Trace.h"

namespace {

/// The message of the first rule that the adapter breaks; null if it breaks none.
const char *AdaptorHealthComplaint(const TcpAdapter &before, const TcpAdapter &now) {
    if (before.mediaConnectStatus == kMediaConnected && now.mediaConnectStatus != kMediaConnected)
        return "Adapter '%s' reported that it was connected and now it isn't; assuming it's not healthy.";
    if (before.deviceStatus == 0 && now.deviceStatus != 0)
        return "Adapter '%s' had a status of 0 and now it's non-0; assuming it's not healthy.";
    if (before.ipAddress != kNoAddress && now.ipAddress == kNoAddress)
        return "Adapter '%s' had an IP address and now it doesn't; assuming it's not healthy.";
    if (before.gatewayAddress != kNoAddress && now.gatewayAddress == kNoAddress)
        return "Adapter '%s' had a default gateway and now it doesn't; assuming it's not healthy.";
    return nullptr;
}

}  // namespace

AdaptorHealthChecker::AdaptorHealthChecker(const TcpAdapterList &before) {
    for (const TcpAdapter &adapter : before)
        (void)m_before.emplace(adapter.bindName, &adapter);
}

bool AdaptorHealthChecker::operator()(const TcpAdapter &now) const {
    if (!now.boundToFilter) {
        Trace(kNdisTrace, "Adapter '%s' isn't bound to our driver; assuming it's healthy.", now.displayName);
        return true;
    }
    const auto before = m_before.find(now.bindName);
    const char *complaint = before == m_before.end() ? nullptr : AdaptorHealthComplaint(*before->second, now);
    if (complaint != nullptr) {
        Trace(kNdisTrace, complaint, now.displayName);
        return false;
    }
    Trace(kNdisTrace, "Adapter '%s' is healthy.", now.displayName);
    return true;
}
