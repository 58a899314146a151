// Gives the agent access to registry keys that are protected.
#pragma once

#include <functional>

#include <wx/string.h>

/// Receives a line for each failure.
using OwnershipLog = std::function<void(const wxString &line)>;

/// Gives Everyone and the Administrators full access to a key and, where that is denied, makes the Administrators its
/// owner first. No failure reaches the caller.
/// @param objectName  of the key in the form of the security functions, such as MACHINE\SYSTEM\...
void TakeOwnership(const OwnershipLog &log, wchar_t *objectName);
