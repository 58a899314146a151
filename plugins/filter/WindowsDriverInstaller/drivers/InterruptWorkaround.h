// A change to the registry that certain builds of Windows need before a filter driver is installed.
#pragma once

/// Makes the change where it is needed. Failures are only logged: they don't stop an installation.
/// @return true when a reboot is required for it.
bool SetNetworkInterruptWorkaround();
