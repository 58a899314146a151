// What this folder offers to the rest of the module.
#pragma once

namespace WindowsFirewall {

// What was on is remembered in one value of the registry, so that another process can restore it. On the thread of the
// call, in a single-threaded apartment. compat 131: no outcome reaches the script; failures are only traced

/// Turns off each profile that is on. @return 0.
int DisableFirewall();
/// Turns those profiles on that the last DisableFirewall turned off. @return 0.
int EnableFirewall();

// Lua's arguments, in UTF-8; null is an empty text. The list is that of the current profile. Failures are logged.
// compat 139: after a success COM and the firewall's objects stay with the thread

/// @param path         full name of the program's file, the key of the list.
/// @param displayName  how the list names it; of no effect on a program that is listed and enabled.
/// @return true when the program is listed and enabled.
bool WindowsFirewallAddApp(const char *path, const char *displayName);
/// @return true when the system says that it is removed.
bool WindowsFirewallRemoveApp(const char *path);

}  // namespace WindowsFirewall
