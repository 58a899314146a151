// A text file of the package while the driver-interface library prints it.
#pragma once

#include <optional>

#include <wx/txtstrm.h>

#include "FileMemory.h"
#include "vta_core.h"
#include "vti.h"

namespace Filter::Diagnostics {

/// Collects what the library's qb_dump_ functions print, and becomes a file of the package.
class MemoryTextDump {
public:
    MemoryTextDump();
    MemoryTextDump(const MemoryTextDump &) = delete;
    MemoryTextDump &operator=(const MemoryTextDump &) = delete;

    /// The first argument of the qb_dump_ functions.
    DumpContext *Context();
    /// Adds what was printed as a file; nothing can be printed afterwards.
    bool AddTo(VtaCore::CZipOutputStream &zip, const wxString &name);

private:
    FileMemory m_memory;
    std::optional<wxTextOutputStream> m_text;
    DumpContext m_context;
};

/// The print function in a DumpContext, whose second word is the address of a wxTextOutputStream. A line is cut at
/// 1023 characters.
int DumpToTextStream(void *context, const char *format, ...);

}  // namespace Filter::Diagnostics
