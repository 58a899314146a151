// The installer's classes compiled into the test, for what a script cannot see.
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

// The installer thread's work on adapters, on the calling thread.
ThreadInTest GetTcpAdaptersInTest(VtaCore::CDom &dom, TcpAdapterList &adapters);
ThreadInTest SetFilterBindingsInTest(VtaCore::CDom &dom, bool enable, const TcpAdapterList *adapters, bool useIpState);
ThreadInTest UnbindUnsuitableAdaptersInTest(VtaCore::CDom &dom);
/// The result of the thread's installation of the filter from the INF files of that folder, on the calling thread.
long InstallFromInfInTest(VtaCore::CDom &dom, const wxString &folder);
/// Runs a whole installation with its threads, with this text as the watchdog's additional log.
/// @return what the script would be told.
bool InstallWithExtraLogInTest(VtaCore::CDom &dom, const wxString &ndisFolder, const wxString &wfpFolder,
                               const wxString &extraLog);
