// fc-host: runs Lua scripts against fc.dll, as the agent would.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>

#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <wx/init.h>

#include "Console.h"
#include "Files.h"
#include "HostState.h"
#include "HostLog.h"
#include "HostVersion.h"
#include "Interruption.h"
#include "LuaEdge.h"
#include "PolicyCheck.h"
#include "Program.h"
#include "ReportPage.h"
#include "Script.h"
#include "Text.h"
#include "settings_control.h"

namespace {

constexpr int kCannotRun = 2;

/// Never destroyed: threads of the module may use it until the process ends.
HostState &TheHost() {
    static HostState &host = *new HostState;
    return host;
}

struct CloseLua {
    void operator()(lua_State *L) const { lua_close(L); }
};
using LuaPtr = std::unique_ptr<lua_State, CloseLua>;

int Complain(const std::string &message) {
    (void)std::fprintf(stderr, "fc-host: %s\n", message.c_str());
    return kCannotRun;
}

/// Reports a failed wxWidgets assertion here; by default it would open a window.
void OnWxAssert(const wxString &file, int line, const wxString &function, const wxString &condition,
                const wxString &message) {
    (void)Complain("wxWidgets: " + ToUtf8(file) + ":" + std::to_string(line) + ": " + ToUtf8(function) + ": " +
                   ToUtf8(condition) + ": " + ToUtf8(message));
}

/// UTF-8, without conversion of line ends.
void PrepareConsole() {
    (void)SetConsoleOutputCP(CP_UTF8);
    (void)SetConsoleCP(CP_UTF8);
    (void)_setmode(_fileno(stdout), _O_BINARY);
    (void)_setmode(_fileno(stderr), _O_BINARY);
}

bool Succeeds(bool succeeded, const std::string &error) {
    if (!succeeded)
        (void)Complain(error);
    return succeeded;
}

bool WriteEvents(const HostState &host) {
    std::string error;
    return host.options.eventsFile.empty() ||
           Succeeds(WriteWholeFile(host.options.eventsFile, host.events.AsJson(), error), error);
}

bool WriteReport(const HostState &host) {
    if (host.history == nullptr)
        return true;
    std::string error;
    const ReportedScript script{ToUtf8(host.options.script), ToUtf8(ToWide(host.scriptError)),
                                host.scriptStatus != 0 ? host.scriptStatus : ExitStatus()};
    const std::optional<std::string> page =
        MakeReportPage(*host.history, {host.runs.All(), host.runs.Forgotten()}, script, error);
    return Succeeds(page && WriteWholeFile(host.options.reportFile, *page, error), error);
}

/// Before the script runs, so that a name that can't be written does not come as a surprise afterwards. An existing
/// file is not changed.
bool CanWriteOutputs(const HostState &host) {
    const Options &options = host.options;
    std::string error;
    for (const std::wstring &path : {options.eventsFile, options.reportFile, options.settingsFile})
        if (!path.empty() && !CanWriteFile(path, error))
            return Succeeds(false, error);
    return host.history == nullptr || Succeeds(MakeReportPage(*host.history, {}, {}, error).has_value(), error);
}

/// Whether all settings were saved to their file.
bool AreSettingsKept(const HostState &host) {
    const DWORD error = VtaCore::Control::SettingsError(*host.dom);
    return error == 0 ||
           Succeeds(false, "the settings are not kept: " + WriteFailure(host.options.settingsFile, error));
}

/// Packages that the script has left open. Those of an interrupted script are incomplete.
bool CloseZips(HostState &host) {
    bool closed = true;
    if (!IsInterrupted()) {
        for (const auto &zip : host.zips) {
            std::string error;
            closed = Succeeds(zip.second->Close(error), error) && closed;
        }
    }
    host.zips.clear();
    return closed;
}

/// Why the standard output can't be written. The CRT has not kept the reason of an earlier failure: writes one more
/// line end, to fail again.
std::string WhyOutputFails() {
    std::clearerr(stdout);
    if (std::fputc('\n', stdout) == EOF || std::fflush(stdout) != 0)
        return std::generic_category().message(errno);
    return "an earlier part was lost";
}

/// Whether everything that the script printed was written, unless that is a pipe whose reader has closed it.
bool IsOutputWritten() {
    const bool written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
    return written || GetFileType(GetStdHandle(STD_OUTPUT_HANDLE)) == FILE_TYPE_PIPE ||
           Succeeds(false, "cannot write all of the standard output: " + WhyOutputFails() +
                               "; check the disk or device to which it goes, and run this again");
}

/// Held for good by the thread that ends the program.
std::mutex g_ending;

/// For a script that does not return. Does not touch anything that it may be using.
void SaveForInterruption() {
    g_ending.lock();
    const HostState &host = TheHost();
    (void)WriteEvents(host);
    (void)WriteReport(host);
    (void)std::fflush(stdout);
}

/// Faults that never struck, and the like. A script that was interrupted did not get that far.
void TellUnusedPlans(HostState &host) {
    if (IsInterrupted())
        return;
    for (const std::string &text : host.plans.SettleAll())
        (void)Complain(text);
}

/// What must happen however the program ends: a script may call os.exit.
void EndHost() {
    g_ending.lock();
    wxLog::FlushActive();  // what other threads have logged
    HostState &host = TheHost();
    host.steps.End();
    VtaCore::Control::SetThreadListener(nullptr);
    VtaCore::Control::SetObserver(nullptr);
    TellUnusedPlans(host);
    bool complete = CloseZips(host);
    complete = WriteEvents(host) && complete;
    complete = WriteReport(host) && complete;
    complete = AreSettingsKept(host) && complete;
    complete = IsOutputWritten() && complete;
    host.system.End();
    (void)std::fflush(nullptr);
    if (IsInterrupted())
        _exit(kInterrupted);
    if (!complete)
        _exit(kCannotRun);
}

/// Installations and removals of drivers are watched for the console, the report and scripts.
void WatchRuns(HostState &host) {
    if (!host.options.quiet)
        host.steps.Begin(host.runs);
    host.events.SetRuns(&host.runs);
    VtaCore::Control::SetThreadListener(&host.runs);
}

/// Unreadable settings are not replaced.
bool CanReadSettings(const Options &options) {
    if (options.settingsFile.empty())
        return true;
    const std::string fault = ToUtf8(VtaCore::Control::SettingsFault(wxString(options.settingsFile)));
    return fault.empty() || Succeeds(false, "cannot read the settings in " + ToUtf8(options.settingsFile) + ": " +
                                                fault + "; correct the file, or name another one");
}

/// @return false if the settings can't be saved.
bool StartHost(HostState &host) {
    if (!CanReadSettings(host.options))
        return false;
    host.dom = std::make_unique<VtaCore::Control::Dom>(wxString(host.options.settingsFile));
    if (!AreSettingsKept(host))
        return false;
    host.log = new HostLog(!host.options.quiet, host.history.get(), host.runs);
    delete wxLog::SetActiveTarget(host.log);
    host.events.SetPrinting(!host.options.quiet);
    host.events.SetHistory(host.history.get());
    WatchRuns(host);
    VtaCore::Control::SetObserver(&host.events);
    for (const std::wstring &component : host.options.traces) {
        VtaCore::Control::EnableTrace(wxString(component), true);
        NoteWantedTrace(host, "--trace: ", ToUtf8(component));
    }
    return std::atexit(EndHost) == 0;
}

void SetArgumentTable(lua_State *L, const Script &script) {
    lua_createtable(L, static_cast<int>(script.arguments.size()), 1);
    lua_pushlstring(L, script.name.data(), script.name.size());
    lua_rawseti(L, -2, 0);
    int index = 0;
    for (const std::string &argument : script.arguments) {
        lua_pushlstring(L, argument.data(), argument.size());
        lua_rawseti(L, -2, ++index);
    }
    lua_setglobal(L, "arg");
}

/// Lua: takes the script as light userdata; creates everything that a script finds.
int OpenState(lua_State *L) {
    luaL_openlibs(L);
    OpenHostTable(L, TheHost());
    SetArgumentTable(L, *static_cast<const Script *>(lua_topointer(L, 1)));
    lua_pushboolean(L, 1);
    return 1;
}

int RunLua(const Options &options, const Script &script) {
    const LuaPtr L(luaL_newstate());
    if (L == nullptr)
        return Complain("no memory for Lua");
    lua_pushcfunction(L.get(), OpenState);
    if (!CallReporting(L.get(), &script))
        return kCannotRun;
    lua_pop(L.get(), 1);
    InterruptScript(L.get());
    HostState &host = TheHost();
    int status = 0;
    if (options.interactive)
        RunPrompt(L.get());
    else
        status = RunScript(L.get(), script, host.scriptError);
    host.scriptStatus = status;
    InterruptScript(nullptr);
    return status;
}

/// The module takes the delay for one of its own: a health check, for example, for an interval that is too long.
void TellTooFast(double seconds) {
    char text[160] = "";
    (void)std::snprintf(text, sizeof text,
                        "--fast %u is too fast for this machine: a wait ended %.0f s late. Take a smaller number, or "
                        "--clock steps",
                        TheHost().options.fast, seconds);
    PrintLine(std::string("fc-host: ") + text);
}

/// The script's file; for the prompt there is none.
bool ReadScript(const Options &options, Script &script, std::string &error) {
    script.name = ToUtf8(options.script);
    for (const std::wstring &argument : options.arguments)
        script.arguments.push_back(ToUtf8(argument));
    if (options.interactive)
        return true;
    std::optional<std::string> content = ReadWholeFile(options.script, error);
    if (!content)
        return false;
    script.content = std::move(*content);
    return true;
}

int CheckAndTell(const Options &options) {
    std::string error;
    const bool isFine = CheckFile(options, error);
    if (!error.empty())
        return Complain(error);
    return isFine ? 0 : kScriptFailed;
}

void PrintVersion() {
    (void)std::printf("fc-host %s, %s, %s\n", HostVersion(), LUA_RELEASE, ToUtf8(wxString(wxVERSION_STRING)).c_str());
}

int Run(const Options &options) {
    std::wstring missing;
    if (!FindLibraries(missing))
        return Complain(ToUtf8(missing));
    if (!options.policyFile.empty() || !options.configFile.empty())
        return CheckAndTell(options);
    Script script;
    std::string error;
    if (!ReadScript(options, script, error))
        return Complain(error);

    wxSetAssertHandler(OnWxAssert);
    if (!wxInitialize())  // never reset, because of the same threads
        return Complain("wxWidgets could not be initialised");
    HostState &host = TheHost();
    host.options = options;
    if (!options.reportFile.empty())
        host.history = std::make_unique<HealthHistory>();
    if (!CanWriteOutputs(host))
        return kCannotRun;
    if (options.fast > 0)
        host.system.StartFastClock(options.fast, TellTooFast);
    else if (options.steps)
        host.system.StartSteppedClock();
    if (!WatchForInterruption(SaveForInterruption))
        return Complain("Ctrl-C can't be watched for");
    if (!StartHost(host))
        return kCannotRun;
    return RunLua(options, script);
}

}  // namespace

int wmain(int argc, wchar_t **argv) {
    PrepareConsole();
    std::wstring error;
    const std::optional<Options> options = ParseOptions(std::vector<std::wstring>(argv + 1, argv + argc), error);
    if (!options)
        return Complain(ToUtf8(error));
    if (options->help) {
        (void)std::fputs(HelpText(), stdout);
        return 0;
    }
    if (options->version) {
        PrintVersion();
        return 0;
    }
    return Run(*options);
}
