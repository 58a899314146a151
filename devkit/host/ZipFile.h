// A diagnostic package that is written to a file.
#pragma once

#include <memory>
#include <utility>

#include <wx/wfstream.h>

#include "vta_core.h"

class ZipFile {
public:
    /// Makes the file, and missing folders above it; null when that can't be done.
    static std::unique_ptr<ZipFile> Create(const wxString &path);

    VtaCore::CZipOutputStream &Stream() { return m_zip; }

    /// Ends the package. @return true when all of it was written.
    bool Close();

private:
    /// @param file  is open.
    explicit ZipFile(std::unique_ptr<wxFileOutputStream> file) : m_file(std::move(file)), m_zip(*m_file) {}

    std::unique_ptr<wxFileOutputStream> m_file;
    VtaCore::CZipOutputStream m_zip;
};
