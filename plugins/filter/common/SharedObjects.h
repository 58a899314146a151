// The module-wide objects that more than one folder uses. fc/ModuleObjects.cpp defines them, since the order of the
// definitions there is the order of construction.
#pragma once

#include <windows.h>
#include <wx/string.h>

/// The comment of the files in a diagnostic package: none.
extern const wxString emptyText;

/// This library, used to load its message texts.
extern HINSTANCE moduleInstance;
