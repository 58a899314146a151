#include "MemoryTextDump.h"

#include <cstdarg>
#include <memory>

#include "fc/fc.h"

namespace Filter::Diagnostics {

namespace {

constexpr std::size_t kLineBytes = 1024;

}  // namespace

bool AddMemoryFile(VtaCore::CZipOutputStream &zip, const wxMemoryOutputStream &memory, bool isText,
                   const wxString &name) {
    // To copy an empty stream is an assertion of wxWidgets, which may show a window.
    const auto in = memory.GetLength() == 0 ? std::make_unique<wxMemoryInputStream>("", 0)
                                            : std::make_unique<wxMemoryInputStream>(memory);
    return zip.AddFromStream(*in, isText, name, emptyText);
}

MemoryTextDump::MemoryTextDump()
    : m_text(std::in_place, m_memory, wxEOL_NATIVE, wxConvAuto()), m_context{&DumpToTextStream, &*m_text} {}

bool MemoryTextDump::AddTo(VtaCore::CZipOutputStream &zip, const wxString &name) {
    m_text.reset();  // all of it is in the memory stream from here on
    return AddMemoryFile(zip, m_memory, true, name);
}

int DumpToTextStream(void *context, const char *format, ...) {
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
