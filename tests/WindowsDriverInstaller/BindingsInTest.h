// The installer thread's work on adapters, on the calling thread, for what a script never hears of.
#pragma once

#include <cstdint>

#include "WindowsDriverInstaller/adapters/TcpAdapter.h"
#include "vta_core.h"

/// What a call on a fresh object of the thread's class left in it.
struct ThreadInTest {
    bool result = true;
    std::uint32_t failedStep;
    std::uint32_t topStep;
};

// The code is that which is compiled into the test; no thread runs.
ThreadInTest GetTcpAdaptersInTest(VtaCore::CDom &dom, TcpAdapterList &adapters);
ThreadInTest SetFilterBindingsInTest(VtaCore::CDom &dom, bool enable, const TcpAdapterList *adapters, bool useIpState);
ThreadInTest UnbindUnsuitableAdaptersInTest(VtaCore::CDom &dom);
