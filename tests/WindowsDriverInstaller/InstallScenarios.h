// The scenarios of an installation: machines, each restored before every run.
#pragma once

#include <array>

#include "InstallFixture.h"

/// What an installation finds.
enum class Scenario {
    Fresh,               ///< No driver at all.
    Upgrade,             ///< Version 1.2.3.4, bound to the first adapter alone.
    ForcedDowngrade,     ///< Version 2.0.0.1, bound in the same way, and the setting that forces the downgrade.
    PartialAfterReboot,  ///< The files and the component of our version, but no running driver.
    Embedded,            ///< An embedded system without a driver.
    BrokenNetwork,       ///< No driver at first. Installed, it takes the first adapter's address, until the adapter is
                         ///< disabled and enabled.
};
inline constexpr std::array<Scenario, 6> kScenarios{Scenario::Fresh,           Scenario::Upgrade,
                                                    Scenario::ForcedDowngrade, Scenario::PartialAfterReboot,
                                                    Scenario::Embedded,        Scenario::BrokenNetwork};

[[nodiscard]] const char *NameOf(Scenario scenario);
/// Whether the installation carries the bindings over.
[[nodiscard]] bool IsUpgrade(Scenario scenario);

/// Every scenario has a third adapter, without TCP/IP, which an installation must leave unbound; a key for the filter's
/// service as soon as the filter is installed; and the key of the system's own NDIS parameters.
class InstallScenarios : public InstallFixture {
protected:
    InstallScenarios();

    /// Restores the whole machine to the start of the scenario, whatever an installation has left: components,
    /// adapters, bindings, write lock, devices, services, files, registry, driver, settings. Planned faults stay. Files
    /// that a killed thread left open must have been closed.
    void Take(Scenario scenario);

    /// The bindings of the filter after a successful installation, as IsBound returns them for the three adapters.
    [[nodiscard]] static std::array<bool, 3> BindingsAfter(Scenario scenario);
    [[nodiscard]] std::array<bool, 3> Bindings();
    /// What IP Helper reports about the first adapter.
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

    Scenario m_scenario = Scenario::Fresh;
    Simulator::NetworkState m_withoutDriver;
};
