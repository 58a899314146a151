// What this folder offers to the rest of the module.
#pragma once

#include <functional>

#include <wx/string.h>

/// Writes a line to the log of the driver thread that works.
using ThreadLog = std::function<void(const wxString &line)>;

/// Opens a key that the system has locked against the agent: gives Everyone and the Administrators full access to it
/// and, where that is denied, makes the Administrators its owner first. No failure reaches the caller.
/// @param log         is given a line for each failure.
/// @param objectName  of the key in the form of the security functions, such as MACHINE\SYSTEM\...
void TakeOwnership(const ThreadLog &log, wchar_t *objectName);
