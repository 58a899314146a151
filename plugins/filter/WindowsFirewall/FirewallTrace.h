// Trace lines of the native firewall.
#pragma once

#include <windows.h>

#include "common/Trace.h"

constexpr wchar_t kFirewallTrace[] = L"FC-WFW";

namespace WindowsFirewall {

/// Traces a result that is a failure.
/// @param failure  the message, which takes the result.
/// @return the result.
inline HRESULT TraceIfFailed(HRESULT hr, const char *failure, const TraceLine &line) {
    if (FAILED(hr))
        Trace(line, failure, static_cast<unsigned long>(hr));
    return hr;
}

}  // namespace WindowsFirewall
