// The firewall of the simulated machine.
#pragma once

#include <memory>
#include <span>
#include <string>
#include <vector>

#include <windows.h>

#include "CallScope.h"
#include "Lock.h"

namespace Simulator {

class FunctionSet;
struct ComLibrary;
struct Core;
struct Machine;

/// An entry of the list of authorised applications.
struct FirewallApplication {
    std::wstring path;  ///< The key of the list, case-insensitive.
    std::wstring name;
    VARIANT_BOOL enabled = VARIANT_TRUE;  ///< Returned unchanged, even if it is neither of the two.

    bool operator==(const FirewallApplication &) const = default;
};

/// All that a test sets and a run changes. Switches are returned unchanged.
struct FirewallState {
    VARIANT_BOOL domainProfile = VARIANT_TRUE;
    VARIANT_BOOL privateProfile = VARIANT_TRUE;
    VARIANT_BOOL publicProfile = VARIANT_TRUE;
    VARIANT_BOOL currentProfile = VARIANT_TRUE;  ///< Of the legacy interfaces; it is independent of the three.
    std::vector<FirewallApplication> applications{};
    HRESULT removeMissingResult =
        HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);  ///< The result of removing an unlisted application.

    bool operator==(const FirewallState &) const = default;
};

/// Any thread.
class Firewall {
public:
    [[nodiscard]] FirewallState Read() const;
    void Put(FirewallState state);

    /// Reads or changes the state: firewall.Use([](FirewallState &state) { state.currentProfile = VARIANT_FALSE; }).
    /// @param body  must not block, nor call this object.
    template <class Body>
    auto Use(Body body) {
        const InsideSimulator inside;
        const LockGuard guard(m_lock);
        return body(m_state);
    }

private:
    mutable Lock m_lock;
    FirewallState m_state;
};

/// The entry of that path, case-insensitive; null if there is none. Valid within Firewall::Use.
[[nodiscard]] FirewallApplication *ApplicationWithPath(FirewallState &state, const std::wstring &path);

/// The names of the simulated methods, as in journal and faults; including QueryInterface.
[[nodiscard]] std::span<const char *const> FirewallMethods();

/// Simulates the classes NetFwPolicy2, NetFwMgr and NetFwAuthorizedApplication for CoCreateInstance, with the
/// interfaces INetFwPolicy2, INetFwMgr, INetFwPolicy, INetFwProfile, INetFwAuthorizedApplications and
/// INetFwAuthorizedApplication; the simulated methods are described where they are declared. The others return
/// E_NOTIMPL. Every call except AddRef and Release is in journal and faults under the names of its interface and its
/// method, such as "INetFwPolicy2::put_FirewallEnabled".
/// @param library  outlives the set.
/// @param machine  outlives the set; if its system is older than 6.0, NetFwPolicy2 is missing. May be null.
void InstallFirewall(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                     const std::shared_ptr<Firewall> &firewall, const Machine *machine);

}  // namespace Simulator
