// The installer thread's work on adapters, run on the calling thread, to test what a script cannot see.
#pragma once

#include <cstdint>

#include "WindowsDriverInstaller/adapters/TcpAdapter.h"
#include "vta_core.h"

/// What a call on a fresh thread object returned and changed.
struct ThreadInTest {
    bool result = true;
    std::uint32_t failedStep;
    std::uint32_t topStep;
};

// This is the code compiled into the test; no thread runs.
ThreadInTest GetTcpAdaptersInTest(VtaCore::CDom &dom, TcpAdapterList &adapters);
ThreadInTest SetFilterBindingsInTest(VtaCore::CDom &dom, bool enable, const TcpAdapterList *adapters, bool useIpState);
ThreadInTest UnbindUnsuitableAdaptersInTest(VtaCore::CDom &dom);
