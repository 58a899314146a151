// The machines that an installation meets, each as it was before every run.
#pragma once

#include <array>

#include "InstallFixture.h"

/// What an installation finds.
enum class Road {
    Fresh,               ///< No driver at all.
    Upgrade,             ///< Version 1.2.3.4, bound to the first adapter alone.
    ForcedDowngrade,     ///< Version 2.0.0.1, bound in the same way, and the setting that makes it go.
    PartialAfterReboot,  ///< The files and the component of our version, but no driver that runs.
    Embedded,            ///< An embedded system without a driver.
    BrokenNetwork,       ///< No driver at first. Installed, it takes the first adapter's address, until the adapter is
                         ///< disabled and enabled.
};
inline constexpr std::array<Road, 6> kRoads{
    Road::Fresh, Road::Upgrade, Road::ForcedDowngrade, Road::PartialAfterReboot, Road::Embedded, Road::BrokenNetwork};

[[nodiscard]] const char *NameOf(Road road);
/// Whether the installation carries the bindings over.
[[nodiscard]] bool IsUpgrade(Road road);

/// On every road there is a third adapter, without TCP/IP, which an installation is to leave unbound; a key for the
/// filter's service as soon as the filter is installed; and the key of the system's own NDIS parameters.
class InstallRoads : public InstallFixture {
protected:
    InstallRoads();

    /// Puts the whole machine as the road has it, whatever an installation has left: components, adapters, bindings,
    /// write lock, devices, services, files, registry, driver, settings. Faults that are planned stay. Files that a
    /// killed thread left open must have been closed.
    void Take(Road road);

    /// The bindings of the filter after an installation that succeeds, as IsBound tells them of the three adapters.
    [[nodiscard]] static std::array<bool, 3> BindingsAfter(Road road);
    [[nodiscard]] std::array<bool, 3> Bindings();
    /// What IP Helper tells of the first adapter.
    [[nodiscard]] std::string FirstAddress();

    static constexpr wchar_t kThird[] = L"ROOT\\LOOPBACK\\3";
    static constexpr char kFirstAddress[] = "10.0.0.10";
    static constexpr wchar_t kFilterServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\qbimvta";

private:
    void TakeEverythingAway();
    void RemoveInfFiles();
    void PutOldDriver(const Version &version);
    void PutFilesWithoutDriver();
    void BreakNetwork();

    Road m_road = Road::Fresh;
    Simulator::NetworkState m_withoutDriver;
};
