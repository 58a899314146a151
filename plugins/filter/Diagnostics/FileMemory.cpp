#include "FileMemory.h"

#include "common/SharedObjects.h"

namespace Filter::Diagnostics {

bool FileMemory::IsWhole() const {
    return m_isWhole;
}

size_t FileMemory::OnSysWrite(const void *buffer, size_t size) {
    const size_t written = wxMemoryOutputStream::OnSysWrite(buffer, size);
    m_isWhole = m_isWhole && written == size;
    return written;
}

bool AddFileMemory(VtaCore::CZipOutputStream &zip, const FileMemory &memory, bool isText, const wxString &name) {
    if (!memory.IsWhole())
        return false;
    // Read where it lies: a stream that copies the other does not check whether it got the memory.
    wxMemoryInputStream in(memory.GetOutputStreamBuffer()->GetBufferStart(), memory.GetSize());
    return zip.AddFromStream(in, isText, name, emptyText);
}

}  // namespace Filter::Diagnostics
