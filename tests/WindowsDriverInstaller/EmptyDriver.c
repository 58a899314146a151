// A kernel driver that does nothing but start and stop.
#include <ddk/wdm.h>

static VOID NTAPI Unload(PDRIVER_OBJECT driver) {
    (void)driver;
}

NTSTATUS NTAPI DriverEntry(PDRIVER_OBJECT driver, PUNICODE_STRING registryPath) {
    (void)registryPath;
    driver->DriverUnload = Unload;
    return STATUS_SUCCESS;
}
