// The stream of a diagnostic package.
#include <memory>
#include <optional>
#include <type_traits>
#include <vector>

#include <wx/zipstrm.h>

#include "LiveObject.h"
#include "vta_core_control.h"

namespace VtaCore {
namespace {

static_assert(std::is_empty_v<CZipOutputStream>);  // the agent's class has none of the stand-in's state

constexpr std::size_t kBlockSize = 64 * 1024;
constexpr int kDefaultLevel = -1;

/// A stream at its end can be added, as an empty file; one that has failed cannot.
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

/// Passes data on to another stream until that fails, and accepts everything then. A wxZipOutputStream whose output
/// fails in the middle of a file uses its inner streams after it has freed them (seen in wx 3.2.2), so the failure is
/// hidden from it.
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

struct Control::ZipPackage::Impl {
    explicit Impl(wxOutputStream &out) : sink(out), zip(sink, kDefaultLevel, wxConvUTF8) {}

    bool Sound() const { return zip.IsOk() && !sink.Failed(); }

    LiveObject live;
    Sink sink;
    wxZipOutputStream zip;
    std::optional<bool> closed;  ///< The result of Close, when it has been called.
};

bool CZipOutputStream::AddFromStream(wxInputStream &in, bool text, const wxString &name, const wxString &comment) {
    Control::ZipPackage::Impl &package = Control::ZipPackage::ImplOf(*this);
    if (package.closed || !package.Sound() || !CanBeRead(in))
        return false;
    auto entry = std::make_unique<wxZipEntry>(name);
    entry->SetIsText(text);
    entry->SetComment(comment);
    if (!package.zip.PutNextEntry(entry.release()))
        return false;
    const bool copied = Copy(in, package.zip);
    return package.zip.CloseEntry() && copied && package.Sound();
}

Control::ZipPackage::ZipPackage(wxOutputStream &out) : m_impl(new Impl(out)) {}

Control::ZipPackage::~ZipPackage() {
    Close();
    delete m_impl;
}

bool Control::ZipPackage::Close() {
    if (!m_impl->closed)
        m_impl->closed = m_impl->zip.Close() && !m_impl->sink.Failed();
    return *m_impl->closed;
}

}  // namespace VtaCore
