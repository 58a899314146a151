// A driver, and the diagnostic package that the module makes of it.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include <wx/mstream.h>

#include "LogCollector.h"
#include "ModuleFixture.h"
#include "vta_core.h"
#include "vta_core_control.h"
#include "vti_control.h"

/// The names of the five files.
inline constexpr char kStats[] = "vta_stats.txt";
inline constexpr char kVariables[] = "vta_variables.txt";
inline constexpr char kConnTrack[] = "vta_conn_track.txt";
inline constexpr char kBlacklist[] = "vta_blacklist.txt";
inline constexpr char kProfile[] = "vta.tpf";

/// A file of a package.
struct PackedFile {
    std::string name;
    std::string content;
    std::string comment;
    bool isText;
};

/// The files of a package, in their order.
class Package {
public:
    Package() = default;
    explicit Package(const wxMemoryOutputStream &zip);

    [[nodiscard]] const std::vector<PackedFile> &Files() const { return m_files; }
    [[nodiscard]] std::vector<std::string> Names() const;
    [[nodiscard]] bool Has(const std::string &name) const;
    /// The content of the file of that name; fails the test without one.
    [[nodiscard]] std::string Content(const std::string &name) const;

private:
    std::vector<PackedFile> m_files;
};

/// The module, and a driver with some data of each kind. In Lua: `dom`, `handle`, `zip`, and `f` for SLB.filter.
class DiagnosticsFixture : public ModuleFixture {
protected:
    DiagnosticsFixture();
    ~DiagnosticsFixture() override;

    /// A driver with some connections, a blacklist and a profile.
    static void FillDriver();
    static Vti::Driver &driver() { return Vti::TheDriver(); }
    /// Calls AddDriverDiagnostics on a new package, which must return true and nothing else.
    Package Run();
    /// The same on a stream of the caller's, which stays open.
    void RunOn(VtaCore::CZipOutputStream &zip);
    /// The agent events since the last call, as "NUMBER TEXT".
    static std::vector<std::string> TakeEvents();
    /// Their messages before formatting.
    static std::vector<std::string> TakeEventFormats();

    VtaCore::Control::Dom dom;
    vti_handle_t *handle;
    std::vector<std::string> calls;  ///< The driver library's calls in the last run.
};

/// Calls of the library that begin with the text.
std::vector<std::string> CallsOf(const std::vector<std::string> &calls, const std::string &beginning);
Vti::Connection ConnectionOf(unsigned number);
/// Bytes of all values.
std::vector<uint8_t> BytesOf(std::size_t size);
