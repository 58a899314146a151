#include "MemoryTextDump.h"

#include <cstdarg>

#include "common/SharedObjects.h"

namespace Filter::Diagnostics {

namespace {

constexpr std::size_t kLineBytes = 1024;

}  // namespace

size_t FileMemory::OnSysWrite(const void *buffer, size_t size) {
    const size_t written = wxMemoryOutputStream::OnSysWrite(buffer, size);
    m_isWhole = m_isWhole && written == size;
    return written;
}

bool AddMemoryFile(VtaCore::CZipOutputStream &zip, const FileMemory &memory, bool isText, const wxString &name) {
    if (!memory.IsWhole())
        return false;
    // Read where it lies: a stream that copies the other does not check whether it got the memory.
    wxMemoryInputStream in(memory.GetOutputStreamBuffer()->GetBufferStart(), memory.GetSize());
    return zip.AddFromStream(in, isText, name, emptyText);
}

MemoryTextDump::MemoryTextDump()
    : m_text(std::in_place, m_memory, wxEOL_NATIVE, wxConvAuto()), m_context{&DumpToTextStream, &*m_text} {}

bool MemoryTextDump::AddTo(VtaCore::CZipOutputStream &zip, const wxString &name) {
    m_text.reset();  // all of it is in the memory stream from here on
    return AddMemoryFile(zip, m_memory, true, name);
}

int DumpToTextStream(void *context, const char *format, ...) {
    // compat 65: cuts a longer line, its line feed included
    char line[kLineBytes] = "";
    va_list arguments;
    va_start(arguments, format);
    const int length = VtaCore::vsnprintf_safe(line, sizeof(line), format, arguments);
    va_end(arguments);
    // Byte by byte, as FromAscii takes them, which would complain of those beyond ASCII.
    static_cast<wxTextOutputStream *>(static_cast<DumpContext *>(context)->word)
        ->WriteString(wxString::From8BitData(line));
    return length;
}

}  // namespace Filter::Diagnostics
