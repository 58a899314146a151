// The firewall's COM objects, and COM itself on the calling thread.
#pragma once

#include <windows.h>
#include <netfw.h>
#include <wrl/client.h>

#include "common/Trace.h"

namespace WindowsFirewall {

using Microsoft::WRL::ComPtr;

/// Enters a single-threaded apartment. A failure is logged.
/// compat 138: a thread of another model counts as entered, and is matched by one CoUninitialize, too
bool InitializeFirewallCom(const TraceLine &line);

/// Makes the objects; logs a failure.
/// @param profile  receives the current profile of the legacy interfaces, on every system.
/// @param policy   receives the policy where the version record says Vista or later; null elsewhere, and so as long as
///                 nobody has filled the record.
/// @return a negative result leaves in the two what was obtained before the failure, for the caller to release.
HRESULT WindowsFirewallInitialize(INetFwProfile **profile, INetFwPolicy2 **policy);

}  // namespace WindowsFirewall
