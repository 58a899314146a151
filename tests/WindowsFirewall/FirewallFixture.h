// A machine with a firewall, and the script's calls that switch it and change its list.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "ModuleFixture.h"

/// The lines of a log, or the names of calls.
using Lines = std::vector<std::string>;

/// Concatenates both.
[[nodiscard]] Lines operator+(Lines first, const Lines &second);

/// The registry value that remembers what was on.
struct StoredFlag {
    DWORD type;
    std::vector<std::uint8_t> bytes;

    bool operator==(const StoredFlag &) const = default;
};

/// The flag as the module writes it.
[[nodiscard]] StoredFlag MaskFlag(DWORD mask);

/// How many more or fewer resources of each kind exist after a call, except memory.
using LeftThings = std::map<std::string, int>;

inline constexpr DWORD kDenied = static_cast<DWORD>(E_ACCESSDENIED);

inline constexpr wchar_t kAgentKey[] = L"SOFTWARE\\Quillon\\Vantry Agent";
inline constexpr wchar_t kFlagName[] = L"WindowsFirewallDisabledByInstaller";
inline constexpr wchar_t kOldService[] = L"SharedAccess";

// The first and last calls on a new system.
inline constexpr char kNoStart[] = "OS is Vista or greater - no need to start the SharedAccess service.";
// And those on an old one, version 5.
inline constexpr char kOldStart[] = "Windows version is 5, which is less than Vista, attempting to start service";
inline constexpr char kStarting[] = "Starting 'SharedAccess' service...";
inline constexpr char kStopping[] = "Stopping 'SharedAccess' service...";

/// A new system whose profiles are all on, and a running service SharedAccess. Sleeps move the clock.
class FirewallFixture : public ModuleFixture {
protected:
    FirewallFixture();
    ~FirewallFixture() override;

    /// The system's version is 5.1 from now on; only before a module's first switch.
    void MakeSystemOld();
    void PutService(const Simulator::Service &service);
    [[nodiscard]] Simulator::Service OldService();

    /// @param mask  the profiles that are on, by their numbers.
    void PutProfiles(int mask);
    [[nodiscard]] int Profiles();
    void PutCurrentProfile(VARIANT_BOOL enabled);
    [[nodiscard]] VARIANT_BOOL CurrentProfile();

    void PutFlag(const StoredFlag &flag);
    /// Empty without a value.
    [[nodiscard]] std::optional<StoredFlag> Flag();

    /// Call SLB.filter.<function>, whose result must be 0.
    /// @return what it logs.
    Lines TurnOff();
    Lines TurnOn();
    /// Calls SLB.filter.<call>.
    struct Answer {
        std::string result;
        Lines log;
    };
    Answer Call(const std::string &call);

    // From the last call:
    [[nodiscard]] const LeftThings &Left() const { return m_left; }
    /// The calls of a function, or of an object's methods: those whose names begin with the text.
    [[nodiscard]] Lines Calls(const std::string &begin);
    /// By the simulated clock.
    [[nodiscard]] std::uint64_t TookMs() const { return m_tookMs; }

    Simulator::Faults &faults() { return simulation().GetFaults(); }

private:
    LeftThings m_left;
    std::uint64_t m_tookMs = 0;
};

/// The same on an old system.
class OldFirewallFixture : public FirewallFixture {
protected:
    OldFirewallFixture() { MakeSystemOld(); }
};
