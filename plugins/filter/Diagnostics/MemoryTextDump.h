// A text file of the package while the driver-interface library prints it.
#pragma once

#include <optional>

#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "vta_core.h"
#include "vti.h"

namespace Filter::Diagnostics {

/// Adds what a stream holds, also nothing, as a file.
/// @param isText  the file is a text.
bool AddMemoryFile(VtaCore::CZipOutputStream &zip, const wxMemoryOutputStream &memory, bool isText,
                   const wxString &name);

/// Collects what the library's qb_dump_ functions print, and becomes a file of the package.
class MemoryTextDump {
public:
    MemoryTextDump();
    MemoryTextDump(const MemoryTextDump &) = delete;
    MemoryTextDump &operator=(const MemoryTextDump &) = delete;

    /// The first argument of the qb_dump_ functions.
    DumpContext *Context() { return &m_context; }
    /// Adds what was printed as a file; nothing can be printed afterwards.
    bool AddTo(VtaCore::CZipOutputStream &zip, const wxString &name);

private:
    wxMemoryOutputStream m_memory;
    std::optional<wxTextOutputStream> m_text;
    DumpContext m_context;
};

/// The print function in a DumpContext, whose second word is the address of a wxTextOutputStream. A line is cut at
/// 1023 characters.
int DumpToTextStream(void *context, const char *format, ...);

}  // namespace Filter::Diagnostics
