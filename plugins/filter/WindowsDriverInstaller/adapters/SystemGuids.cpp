// The system's GUIDs of device classes and of the network configuration. In a source of their own, so that linking
// one pulls in nothing else.
#include <initguid.h>

#include <windows.h>
#include <devguid.h>
#include <netcfgx.h>
