// The content of a file of the package while it is collected.
#pragma once

#include <wx/mstream.h>

#include "vta_core.h"

namespace Filter::Diagnostics {

/// What a file is collected in. It remembers what wxWidgets tells nobody: that a part of it found no memory.
class FileMemory : public wxMemoryOutputStream {
public:
    [[nodiscard]] bool IsWhole() const;

protected:
    size_t OnSysWrite(const void *buffer, size_t size) override;

private:
    bool m_isWhole = true;
};

/// Adds what was collected, also nothing, as a file.
/// @param isText  the file is a text.
/// @return false also for one that is not whole: it is left out.
bool AddFileMemory(VtaCore::CZipOutputStream &zip, const FileMemory &memory, bool isText, const wxString &name);

}  // namespace Filter::Diagnostics
