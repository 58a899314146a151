#include "MemoryTextDump.h"

#include <cstdarg>

namespace Filter::Diagnostics {

namespace {

constexpr std::size_t kLineBytes = 1024;

}  // namespace

MemoryTextDump::MemoryTextDump()
    : m_text(std::in_place, m_memory, wxEOL_NATIVE, wxConvAuto()), m_context{&DumpToTextStream, &*m_text} {}

DumpContext *MemoryTextDump::Context() {
    return &m_context;
}

bool MemoryTextDump::AddTo(VtaCore::CZipOutputStream &zip, const wxString &name) {
    m_text.reset();  // all of it is in the memory stream from here on
    return AddFileMemory(zip, m_memory, true, name);
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
