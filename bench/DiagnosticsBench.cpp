#include "DiagnosticsBench.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include <wx/mstream.h>
#include <wx/txtstrm.h>

#include "DiagnosticsStubs.h"
#include "LuaBench.h"
#include "Simulation.h"
#include "slb3_control.h"
#include "vta_core_control.h"

namespace {

constexpr int kDumpRounds = 5;
constexpr unsigned kVariables = 174;
constexpr std::size_t kLineBytes = 1024;

struct Line {
    char text[kLineBytes];
};

std::size_t Format(Line &line, const char *format, ...) {
    va_list arguments;
    va_start(arguments, format);
    const int length = std::vsnprintf(line.text, sizeof(line.text), format, arguments);
    va_end(arguments);
    return static_cast<std::size_t>(length);
}

/// Discards everything: the package is not what is measured.
class NowhereStream : public wxOutputStream {
protected:
    size_t OnSysWrite(const void *, size_t size) override { return size; }
};

/// Calls `file` for each of the four texts with a function that prints it line by line.
template <typename File>
void PrintTexts(const File &file) {
    using namespace DiagnosticsStubs;
    file([](const auto &print) { PrintStatistics(print); });
    file([](const auto &print) {
        for (unsigned i = 0; i < kVariables; ++i)
            PrintVariable(i, print);
    });
    file([](const auto &print) { PrintConnections(print); });
    file([](const auto &print) { PrintBlacklist(print); });
}

/// The least that a module that writes texts through wxTextOutputStream must do: format each line and write it. Neither
/// side includes the driver's answers, the packing and the profile, whose bytes need no work; only the module passes
/// the finished stream on to the package.
double TimeTextStreams() {
    std::size_t bytes = 0;
    const double start = Now();
    PrintTexts([&](const auto &printAll) {
        wxMemoryOutputStream memory;
        {
            wxTextOutputStream text(memory);
            Line line;
            printAll([&](const char *format, auto... arguments) {
                (void)Format(line, format, arguments...);
                text.WriteString(wxString::FromAscii(line.text));
            });
        }
        bytes += memory.GetSize();
    });
    const double time = Now() - start;
    const std::size_t wanted = DiagnosticsStubs::TheState().bytes - DiagnosticsStubs::kProfileBytes;
    if (bytes != wanted) {
        (void)std::fprintf(stderr, "bench: the floor writes %zu bytes of text, the module %zu\n", bytes, wanted);
        std::exit(2);  // the floor has to do the work, too
    }
    return time;
}

double TimeGrowingBuffer() {
    const double start = Now();
    PrintTexts([](const auto &printAll) {
        std::string text;
        Line line;
        printAll(
            [&](const char *format, auto... arguments) { text.append(line.text, Format(line, format, arguments...)); });
    });
    return Now() - start;
}

/// The peak memory of a run in bytes, including the packing. A block that grows counts with its new size; the driver's
/// data does not count.
double PeakBytes(LuaBench &lua) {
    Simulator::Simulation simulation({.registry = false, .folders = false, .machine = false});
    for (const wchar_t *name : {L"" FC_WX_DLL, L"libstdc++-6.dll", L"vta_core.dll", L"fc.dll"})
        simulation.Attach(GetModuleHandleW(name));
    Simulator::Balance &balance = simulation.GetBalance();
    const std::size_t before = balance.Take().bytes;
    balance.ResetPeak();
    DiagnosticsStubs::TheState().packs = true;
    lua.Run("build()");
    DiagnosticsStubs::TheState().packs = false;
    return static_cast<double>(balance.Take().peakBytes - before);
}

double TimeModule(LuaBench &lua) {
    DiagnosticsStubs::State &state = DiagnosticsStubs::TheState();
    state = {};
    const double time = lua.Time("build()");
    if (state.files != 5) {
        (void)std::fprintf(stderr, "bench: the package gets %zu files, not 5\n", state.files);
        std::exit(2);
    }
    return time;
}

/// The globals dom, handle, zip and build.
void PrepareLua(LuaBench &lua, VtaCore::CDom &dom, VtaCore::CZipOutputStream &zip) {
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    lua_setglobal(lua, "dom");
    SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &zip);
    lua_setglobal(lua, "zip");
    static char handle = 0;
    *static_cast<char **>(lua_newuserdata(lua, sizeof(char *))) = &handle;
    luaL_newmetatable(lua, "vti_handle_t*");
    lua_setmetatable(lua, -2);
    lua_setglobal(lua, "handle");
    lua.Run("require 'fc' function build() assert(SLB.filter.AddDriverDiagnostics(dom, handle, zip)) end");
}

}  // namespace

void BenchDiagnostics(Report &report) {
    LuaBench lua;
    VtaCore::Control::Dom dom;
    NowhereStream out;
    VtaCore::Control::ZipPackage zip(out);
    PrepareLua(lua, dom, zip);
    const std::vector<Simulator::Redirection> stubs = DiagnosticsStubs::PutUnder(GetModuleHandleW(L"fc.dll"));
    const auto times = MedianTimes(kDumpRounds, {[&] { return TimeModule(lua); }, TimeTextStreams, TimeGrowingBuffer});
    report.Add("AddDriverDiagnostics, its own share, to its lines straight to text streams", times[0] / times[1],
               "time ratio", "<= 1.2");
    report.Add("AddDriverDiagnostics, its own share, to its lines in growing buffers", times[0] / times[2],
               "time ratio");
    const auto bytes = static_cast<double>(DiagnosticsStubs::TheState().bytes);
    report.Add("AddDriverDiagnostics, its most memory, to the sum of its files", PeakBytes(lua) / bytes, "bytes ratio",
               "<= 3.0");
}
