#include "Firewall.h"

#include <algorithm>
#include <utility>

#include "AnyCase.h"
#include "ComLibrary.h"
#include "FirewallApplicationObjects.h"
#include "FirewallPolicyObject.h"
#include "FirewallProfileObjects.h"
#include "Machine.h"

namespace Simulator {

namespace {

constexpr const char *kFirewallMethods[] = {
    "INetFwPolicy2::QueryInterface",
    "INetFwPolicy2::get_FirewallEnabled",
    "INetFwPolicy2::put_FirewallEnabled",
    "INetFwMgr::QueryInterface",
    "INetFwMgr::get_LocalPolicy",
    "INetFwPolicy::QueryInterface",
    "INetFwPolicy::get_CurrentProfile",
    "INetFwProfile::QueryInterface",
    "INetFwProfile::get_FirewallEnabled",
    "INetFwProfile::put_FirewallEnabled",
    "INetFwProfile::get_AuthorizedApplications",
    "INetFwAuthorizedApplications::QueryInterface",
    "INetFwAuthorizedApplications::get_Count",
    "INetFwAuthorizedApplications::Add",
    "INetFwAuthorizedApplications::Remove",
    "INetFwAuthorizedApplications::Item",
    "INetFwAuthorizedApplication::QueryInterface",
    "INetFwAuthorizedApplication::get_Name",
    "INetFwAuthorizedApplication::put_Name",
    "INetFwAuthorizedApplication::get_ProcessImageFileName",
    "INetFwAuthorizedApplication::put_ProcessImageFileName",
    "INetFwAuthorizedApplication::get_Enabled",
    "INetFwAuthorizedApplication::put_Enabled",
};

}  // namespace

std::span<const char *const> FirewallMethods() {
    return kFirewallMethods;
}

FirewallState Firewall::Read() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_state;
}

void Firewall::Put(FirewallState state) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_state = std::move(state);
}

FirewallApplication *ApplicationWithPath(FirewallState &state, const std::wstring &path) {
    const auto found = std::find_if(state.applications.begin(), state.applications.end(),
                                    [&](const FirewallApplication &entry) { return SameInAnyCase(entry.path, path); });
    return found == state.applications.end() ? nullptr : &*found;
}

void InstallFirewall(FunctionSet &functions, const std::shared_ptr<Core> &core, const ComLibrary &library,
                     const std::shared_ptr<Firewall> &firewall, const Machine *machine) {
    PutComClass(functions, library, __uuidof(NetFwPolicy2),
                [core, firewall, machine](REFIID iid, const char *function, void **object) -> HRESULT {
                    if (machine != nullptr && machine->osMajor < 6)
                        return REGDB_E_CLASSNOTREG;
                    return std::make_shared<FirewallPolicyObject>(core, firewall)->Provide(iid, function, object);
                });
    PutComClass(functions, library, __uuidof(NetFwMgr),
                [core, firewall](REFIID iid, const char *function, void **object) {
                    return std::make_shared<FirewallManagerObject>(core, firewall)->Provide(iid, function, object);
                });
    PutComClass(functions, library, __uuidof(NetFwAuthorizedApplication),
                [core](REFIID iid, const char *function, void **object) {
                    return std::make_shared<FirewallApplicationObject>(core, FirewallApplication{})
                        ->Provide(iid, function, object);
                });
}

}  // namespace Simulator
