// A machine with adapters, the files of both drivers, and the script's call that installs them.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "DriverMachine.h"
#include "vti_control.h"

/// The threads of an installation as fault plans number them, created on the script's thread.
inline constexpr unsigned kWatchdogThread = 1;
inline constexpr unsigned kWorkerThread = 2;

/// The result of one call of SLB.filter.InstallOrUpdateDriver.
struct InstallOutcome : Removal {
    std::vector<std::string> traces;  ///< Of the component NDIS.

    /// The texts of one agent event.
    [[nodiscard]] std::vector<std::string> EventTexts(int number) const;
    [[nodiscard]] bool AskedForReboot() const;
};

/// Two connected adapters with addresses, bound to TCP/IP; no driver at first. Our copy has version 2.0.0.0. Installing
/// the filter loads the driver in our version, removing it unloads the driver.
class AdapterMachine : protected DriverMachine {
protected:
    using Version = std::array<std::uint16_t, 4>;

    AdapterMachine();
    ~AdapterMachine();

    /// Installs both drivers, running, and binds the filter to both adapters.
    void InstallOldDriver(const Version &version);
    void SetOurVersion(const Version &version);
    /// The version of the running driver; none: it can't be opened.
    void SetRunningVersion(const std::optional<Version> &version);
    /// The version that an Install of the filter loads; none: no change.
    void SetVersionAfterInstall(const std::optional<Version> &version) { m_loadedByInstall = version; }

    /// Calls SLB.filter.InstallOrUpdateDriver, and waits for its threads to end.
    InstallOutcome Install();
    /// The same while `meanwhile` runs on another thread.
    /// @param objectsThatStay  how many of the agent library's objects stay for good.
    InstallOutcome InstallWhile(const std::function<void()> &meanwhile, int objectsThatStay = 0);

    /// Waits until the threads of an installation have ended, and at most so many of the agent library's objects are
    /// left.
    void AwaitThreads(int objects);

    [[nodiscard]] std::filesystem::path NdisFolder();
    [[nodiscard]] Simulator::NetworkConfiguration &network() { return simulation().GetNetwork(); }
    /// Whether the filter is bound to the adapter.
    [[nodiscard]] bool IsBound(const std::wstring &node);

    static constexpr wchar_t kFirst[] = L"PCI\\VEN_8086&DEV_100E\\1";
    static constexpr wchar_t kSecond[] = L"PCI\\VEN_10EC&DEV_8168\\2";
    static constexpr Version kOurVersion{2, 0, 0, 0};

    /// Called for each moment of the network, on its thread.
    std::function<void(const Simulator::NetworkMoment &)> onMoment;

private:
    void PutAdapters();
    void WriteDriverFiles();
    void FollowFilter(const Simulator::NetworkMoment &moment);

    std::optional<Version> m_loadedByInstall = kOurVersion;
};
