// The stream of a diagnostic package.
#include <memory>
#include <optional>
#include <vector>

#include <wx/zipstrm.h>

#include "LiveObject.h"
#include "vta_core.h"

namespace VtaCore {
namespace {

constexpr std::size_t kBlockSize = 64 * 1024;
constexpr int kDefaultLevel = -1;

/// A stream at its end can be added, as nothing; one that has failed cannot.
bool CanBeRead(const wxInputStream &in) {
    return in.IsOk() || in.GetLastError() == wxSTREAM_EOF;
}

/// @return true when everything up to the end of `in` was read and written.
bool Copy(wxInputStream &in, wxOutputStream &out) {
    std::vector<char> block(kBlockSize);
    for (;;) {
        const std::size_t got = in.Read(block.data(), block.size()).LastRead();
        if (got > 0 && !out.WriteAll(block.data(), got))
            return false;
        if (in.GetLastError() != wxSTREAM_NO_ERROR || got == 0)
            return in.GetLastError() == wxSTREAM_EOF;
    }
}

/// Hands on to another stream until that fails, and takes everything then. A wxZipOutputStream whose output fails
/// in the middle of a file uses its inner streams after it has freed them (seen in wx 3.2.2), so it never hears of it.
class Sink : public wxOutputStream {
public:
    explicit Sink(wxOutputStream &out) : m_out(out) {}

    bool Failed() const { return m_failed; }

protected:
    size_t OnSysWrite(const void *buffer, size_t size) override {
        m_failed = m_failed || !m_out.WriteAll(buffer, size);
        return size;
    }

private:
    wxOutputStream &m_out;
    bool m_failed = false;
};

}  // namespace

struct CZipOutputStream::Impl {
    explicit Impl(wxOutputStream &out) : sink(out), zip(sink, kDefaultLevel, wxConvUTF8) {}

    bool Sound() const { return zip.IsOk() && !sink.Failed(); }

    LiveObject live;
    Sink sink;
    wxZipOutputStream zip;
    std::optional<bool> closed;  ///< The result of Close, when it has been called.
};

CZipOutputStream::CZipOutputStream(wxOutputStream &out) : m_impl(new Impl(out)) {}

CZipOutputStream::~CZipOutputStream() {
    Close();
    delete m_impl;
}

bool CZipOutputStream::AddFromStream(wxInputStream &in, bool text, const wxString &name, const wxString &comment) {
    if (m_impl->closed || !m_impl->Sound() || !CanBeRead(in))
        return false;
    auto entry = std::make_unique<wxZipEntry>(name);
    entry->SetIsText(text);
    entry->SetComment(comment);
    if (!m_impl->zip.PutNextEntry(entry.release()))
        return false;
    const bool copied = Copy(in, m_impl->zip);
    return m_impl->zip.CloseEntry() && copied && m_impl->Sound();
}

bool CZipOutputStream::Close() {
    if (!m_impl->closed)
        m_impl->closed = m_impl->zip.Close() && !m_impl->sink.Failed();
    return *m_impl->closed;
}

}  // namespace VtaCore
