// Diagnostic packages as files: one that is written, and what is in one.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <wx/wfstream.h>

#include "vta_core_control.h"

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
    VtaCore::Control::ZipPackage m_zip;
};

struct ZippedFile {
    std::string name;  ///< In UTF-8.
    std::string content;
};

/// The files in a package, in their order.
/// @param error  says what can't be read, when nothing is returned.
std::optional<std::vector<ZippedFile>> ReadZipFile(const wxString &path, std::string &error);
