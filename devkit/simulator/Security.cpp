#include "Security.h"

#include <algorithm>

#include "CallScope.h"

namespace Simulator {

namespace {

/// Whether this entry gives everyone all rights to the key itself.
bool OpensKey(const AccessEntry &entry) {
    const bool all = (entry.mask & GENERIC_ALL) != 0 || (entry.mask & KEY_ALL_ACCESS) == KEY_ALL_ACCESS;
    return entry.type == ACCESS_ALLOWED_ACE_TYPE && (entry.flags & INHERIT_ONLY_ACE) == 0 && all &&
           entry.sid == Sid::kEveryone;
}

bool OpensBelow(const AccessEntry &entry) {
    AccessEntry inherited = entry;
    inherited.flags &= static_cast<BYTE>(~INHERIT_ONLY_ACE);
    return (entry.flags & CONTAINER_INHERIT_ACE) != 0 && OpensKey(inherited);
}

/// The path of the parent key; empty at the root.
std::wstring Above(const std::wstring &path) {
    const std::size_t end = path.find_last_of(L'\\');
    return end == std::wstring::npos ? std::wstring() : path.substr(0, end);
}

}  // namespace

Security::Security() {
    GrantPrivilege(kTakeOwnership);
}

void Security::ProtectKey(const std::wstring &path, const std::wstring &owner) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    KeySecurity &key = m_keys[path];
    key.owner = owner;
    key.isProtected = true;
    key.protectsBelow = true;
}

void Security::ForbidDeletion(const std::wstring &path, DWORD error) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_keys[path].deleteError = error;
}

KeySecurity Security::Key(const std::wstring &path) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return KeyLocked(path);
}

bool Security::IsProtected(const std::wstring &path) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return IsProtectedLocked(path);
}

DWORD Security::DeleteErrorOf(const std::wstring &path) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const DWORD error = KeyLocked(path).deleteError;
    return error == ERROR_SUCCESS && IsProtectedLocked(path) ? ERROR_ACCESS_DENIED : error;
}

void Security::GrantPrivilege(const std::wstring &privilege) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_privileges.try_emplace(privilege, false);
}

void Security::WithholdPrivilege(const std::wstring &privilege) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_privileges.erase(privilege);
}

bool Security::IsEnabled(const std::wstring &privilege) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const auto held = m_privileges.find(privilege);
    return held != m_privileges.end() && held->second;
}

DWORD Security::Apply(const std::wstring &path, const Change &change) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    if (!MayLocked(path, change))
        return ERROR_ACCESS_DENIED;
    if (change.setsOwner && change.owner != Sid::kAdministrators)
        return ERROR_INVALID_OWNER;
    KeySecurity &key = m_keys[path];
    if (change.setsOwner)
        key.owner = change.owner;
    if (!change.setsAccess)
        return ERROR_SUCCESS;
    key.entries = change.entries;
    if (change.withoutList || std::any_of(key.entries.begin(), key.entries.end(), &OpensKey))
        key.isProtected = false;
    if (std::any_of(key.entries.begin(), key.entries.end(), &OpensBelow))
        key.protectsBelow = false;
    return ERROR_SUCCESS;
}

DWORD Security::Adjust(const std::vector<Adjustment> &adjustments) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    DWORD result = ERROR_SUCCESS;
    for (const Adjustment &adjustment : adjustments) {
        const auto held = m_privileges.find(adjustment.privilege);
        if (held == m_privileges.end())
            result = ERROR_NOT_ALL_ASSIGNED;
        else if ((adjustment.attributes & SE_PRIVILEGE_REMOVED) != 0)
            m_privileges.erase(held);
        else
            held->second = (adjustment.attributes & SE_PRIVILEGE_ENABLED) != 0;
    }
    return result;
}

void Security::DisableAll() {
    const LockGuard guard(m_lock);
    for (auto &[name, enabled] : m_privileges)
        enabled = false;
}

bool Security::IsProtectedLocked(const std::wstring &path) const {
    std::optional<bool> answer = KeyLocked(path).isProtected;
    for (std::wstring above = Above(path); !answer && !above.empty(); above = Above(above))
        answer = KeyLocked(above).protectsBelow;
    return answer.value_or(false);
}

KeySecurity Security::KeyLocked(const std::wstring &path) const {
    const auto found = m_keys.find(path);
    return found == m_keys.end() ? KeySecurity() : found->second;
}

bool Security::MayLocked(const std::wstring &path, const Change &change) const {
    if (!IsProtectedLocked(path))
        return true;
    const auto privilege = m_privileges.find(kTakeOwnership);
    const bool mayTakeOwnership = privilege != m_privileges.end() && privilege->second;
    const bool isOwner = KeyLocked(path).owner == Sid::kAdministrators;
    return (!change.setsOwner || mayTakeOwnership) && (!change.setsAccess || isOwner);
}

}  // namespace Simulator
