// Diagnostic packages as files: writing one, and reading one.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <wx/wfstream.h>

#include "Files.h"
#include "vta_core_control.h"

/// Replaces the file when it is closed; otherwise nothing of it is left.
class ZipFile {
public:
    /// Creates the file, and missing folders above it. @param error  says which file and why, if the result is null.
    static std::unique_ptr<ZipFile> Create(const std::wstring &path, std::string &error);

    VtaCore::CZipOutputStream &Stream() { return m_zip; }

    /// Finishes the package. @param error  says which file and why, if not all of it was written.
    [[nodiscard]] bool Close(std::string &error);

private:
    ZipFile(NewFile file, int descriptor)
        : m_new(std::move(file)), m_file(std::make_unique<wxFileOutputStream>(descriptor)), m_zip(*m_file) {}

    NewFile m_new;
    std::unique_ptr<wxFileOutputStream> m_file;
    VtaCore::Control::ZipPackage m_zip;
};

struct ZippedFile {
    std::string name;  ///< In UTF-8.
    std::string content;
};

/// What a package may unpack to: a small one could fill the memory otherwise.
constexpr std::uint64_t kMostZippedBytes = std::uint64_t{1} << 30;

/// The files in a package, in order. @param error  says what can't be read, if nothing is returned.
/// @param mostBytes  that all files together may have.
std::optional<std::vector<ZippedFile>> ReadZipFile(const wxString &path, std::string &error,
                                                   std::uint64_t mostBytes = kMostZippedBytes);
