#include "FirewallVersionRecord.h"

#include "common/WindowsVersion.h"

namespace WindowsFirewall {

OSVERSIONINFOEXW osVersionRecord;

void FillFirewallVersionRecord() {
    // compat 144: the size marks the record as filled, even if the version can't be read
    constexpr DWORD filled = sizeof(OSVERSIONINFOW);
    if (osVersionRecord.dwOSVersionInfoSize == filled)
        return;
    (void)QueryWindowsVersion(osVersionRecord, filled);
}

bool IsRecordedVersionVistaOrLater() {
    return osVersionRecord.dwMajorVersion >= 6;
}

}  // namespace WindowsFirewall
