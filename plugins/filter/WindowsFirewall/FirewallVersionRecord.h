// The Windows version by which the firewall is handled.
#pragma once

#include <windows.h>

namespace WindowsFirewall {

/// compat 143: the running system; only the two switches fill it, and until then the major version reads 0
extern OSVERSIONINFOEXW osVersionRecord;
void FillFirewallVersionRecord();
/// What the record says, so false until it is filled.
bool IsRecordedVersionVistaOrLater();

}  // namespace WindowsFirewall
