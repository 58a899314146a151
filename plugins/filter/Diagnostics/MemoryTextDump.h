// A text file of the package while the driver-interface library prints it.
#pragma once

#include <optional>

#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "vta_core.h"
#include "vti.h"

namespace Filter::Diagnostics {

/// What a file is collected in. It remembers what wxWidgets tells nobody: that a part of it found no memory.
class FileMemory : public wxMemoryOutputStream {
public:
    [[nodiscard]] bool IsWhole() const { return m_isWhole; }

protected:
    size_t OnSysWrite(const void *buffer, size_t size) override;

private:
    bool m_isWhole = true;
};

/// Adds what was collected, also nothing, as a file.
/// @param isText  the file is a text.
/// @return false also for one that is not whole: it is left out.
bool AddMemoryFile(VtaCore::CZipOutputStream &zip, const FileMemory &memory, bool isText, const wxString &name);

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
    FileMemory m_memory;
    std::optional<wxTextOutputStream> m_text;
    DumpContext m_context;
};

/// The print function in a DumpContext, whose second word is the address of a wxTextOutputStream. A line is cut at
/// 1023 characters.
int DumpToTextStream(void *context, const char *format, ...);

}  // namespace Filter::Diagnostics
