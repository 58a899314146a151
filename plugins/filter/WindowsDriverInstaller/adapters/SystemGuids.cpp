// The system's GUIDs of device classes and of the network configuration. In a source of their own, so that whoever
// needs one gets no more than that.
#include <initguid.h>

#include <windows.h>
#include <devguid.h>
#include <netcfgx.h>
