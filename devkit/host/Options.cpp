#include "Options.h"

#include <cwchar>
#include <map>
#include <set>
#include <utility>

#include <windows.h>

#include "AnyCase.h"
#include "Nearest.h"
#include "Text.h"
#include "TraceComponents.h"

namespace {

struct Switch {
    const wchar_t *name;
    bool Options::*field;
};

constexpr Switch kSwitches[] = {
    {L"--help", &Options::help},   {L"-h", &Options::help},        {L"--version", &Options::version},
    {L"--quiet", &Options::quiet}, {L"-i", &Options::interactive},
};

using TakeValue = bool (*)(Options &options, const std::wstring &value);

struct Setting {
    const wchar_t *name;
    const wchar_t *value;  ///< The kind of value, for messages.
    TakeValue take;        ///< Returns false for an invalid value.
};

bool TakeText(std::wstring &field, const std::wstring &value) {
    field = value;
    return !value.empty();
}

bool TakeFast(Options &options, const std::wstring &value) {
    constexpr unsigned long maxFactor = 1'000'000;
    if (value.empty() || value.find_first_not_of(L"0123456789") != std::wstring::npos || value.size() > 7)
        return false;
    const unsigned long factor = std::wcstoul(value.c_str(), nullptr, 10);
    options.fast = static_cast<unsigned>(factor);
    return factor >= 1 && factor <= maxFactor;
}

bool TakeClock(Options &options, const std::wstring &value) {
    options.steps = value == L"steps";
    return options.steps || value == L"real";
}

const Setting kSettings[] = {
    {L"--clock", L"steps for a simulated clock that moves when all wait, or real", TakeClock},
    {L"--trace", L"the name of a component, or * for all",
     [](Options &options, const std::wstring &value) { return TakeText(options.traces.emplace_back(), value); }},
    {L"--events", L"the name of the JSON file to write",
     [](Options &options, const std::wstring &value) { return TakeText(options.eventsFile, value); }},
    {L"--report", L"the name of the HTML file to write",
     [](Options &options, const std::wstring &value) { return TakeText(options.reportFile, value); }},
    {L"--settings", L"the name of the file that keeps the settings",
     [](Options &options, const std::wstring &value) { return TakeText(options.settingsFile, value); }},
    {L"--check-policy", L"the name of the policy's file",
     [](Options &options, const std::wstring &value) { return TakeText(options.policyFile, value); }},
    {L"--check-config", L"the name of the configuration file",
     [](Options &options, const std::wstring &value) { return TakeText(options.configFile, value); }},
    {L"--fast", L"how many times faster the clock runs, from 1 to 1000000", TakeFast},
};

const Setting *FindSetting(const std::wstring &name) {
    for (const Setting &setting : kSettings)
        if (name == setting.name)
            return &setting;
    return nullptr;
}

std::vector<std::string> OptionNames() {
    std::vector<std::string> names;
    for (const Switch &known : kSwitches)
        names.push_back(ToUtf8(std::wstring(known.name)));
    for (const Setting &setting : kSettings)
        names.push_back(ToUtf8(std::wstring(setting.name)));
    return names;
}

bool TakeSwitch(Options &options, const std::wstring &name) {
    for (const Switch &known : kSwitches) {
        if (name == known.name) {
            options.*known.field = true;
            return true;
        }
    }
    return false;
}

bool IsOption(const std::wstring &argument) {
    return argument.size() > 1 && argument[0] == L'-';
}

/// Reads the option at `next`, and its value, which may be joined with '=' or be the next argument.
bool TakeOption(Options &options, const std::vector<std::wstring> &arguments, std::size_t &next, std::wstring &error) {
    const std::wstring &argument = arguments[next++];
    const std::size_t equals = argument.find(L'=');
    const std::wstring name = argument.substr(0, equals);
    options.given.push_back(name);
    if (TakeSwitch(options, argument))
        return true;

    const Setting *setting = FindSetting(name);
    if (setting == nullptr) {
        error = L"unknown option '" + argument + L"'" + ToWide(Suggestion(ToUtf8(name), OptionNames())) +
                L"; fc-host --help lists the options";
        return false;
    }
    std::wstring value;
    if (equals != std::wstring::npos)
        value = argument.substr(equals + 1);
    else if (next < arguments.size())
        value = arguments[next++];
    if (setting->take(options, value))
        return true;
    error = L"option " + name + L" needs a value: " + setting->value;
    if (!value.empty())
        error += L"; '" + value + L"' is none";
    return false;
}

std::wstring FullPath(const std::wstring &path) {
    std::wstring full(GetFullPathNameW(path.c_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.c_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    return full;
}

/// Whether two of the output files have the same name.
bool NamesOneFileTwice(const Options &options, std::wstring &error) {
    const std::pair<const wchar_t *, const std::wstring *> files[] = {
        {L"--events", &options.eventsFile}, {L"--report", &options.reportFile}, {L"--settings", &options.settingsFile}};
    std::map<std::wstring, const wchar_t *, Simulator::LessInAnyCase> known;
    for (const auto &[option, path] : files) {
        if (path->empty())
            continue;
        const auto [first, isNew] = known.emplace(FullPath(*path), option);
        if (!isNew) {
            error = std::wstring(first->second) + L" and " + option + L" name one file, '" + *path +
                    L"'; give each a file of its own";
            return true;
        }
    }
    return false;
}

/// A component that the module does not have may be the script's.
bool AreTracesKnown(const Options &options, std::wstring &error) {
    for (const std::wstring &component : options.traces) {
        const std::string name = ToUtf8(component);
        if (!IsMisspeltTraceComponent(name))
            continue;
        error = L"there is no trace component '" + component + L"'" + ToWide(Suggestion(name, ModuleTraceComponents()));
        return false;
    }
    return true;
}

std::wstring Joined(const std::set<std::wstring> &names) {
    std::wstring joined;
    for (const std::wstring &name : names)
        joined += (joined.empty() ? L"" : L", ") + name;
    return joined;
}

/// Whether one file is to be checked and nothing else. A check is quiet anyway.
bool IsCheck(const Options &options, std::wstring &error) {
    if (options.policyFile.empty() && options.configFile.empty())
        return false;
    std::multiset<std::wstring> given(options.given.begin(), options.given.end());
    const std::size_t files = given.erase(L"--check-policy") + given.erase(L"--check-config");
    given.erase(L"--quiet");
    if (!options.script.empty() || options.interactive)
        error = L"--check-policy and --check-config check a file and run no script; leave out one of them";
    else if (files > 1)
        error = L"--check-policy and --check-config check one file at a time; leave out one of them";
    else if (!given.empty())
        error = L"--check-policy and --check-config stand alone, or with --quiet; leave out " +
                Joined({given.begin(), given.end()});
    return true;
}

/// Whether the options are compatible.
bool IsComplete(const Options &options, std::wstring &error) {
    if (options.help || options.version)
        return true;
    if (IsCheck(options, error))
        return error.empty();
    if (options.script.empty() && !options.interactive)
        error = L"no script is given: fc-host SCRIPT runs one, fc-host -i opens a prompt, fc-host --help tells more";
    else if (!options.script.empty() && options.interactive)
        error = L"-i opens a prompt and runs no script; leave out either -i or '" + options.script + L"'";
    else if (options.steps && options.fast > 0)
        error = L"--clock steps and --fast are two clocks; leave out one of them";
    return error.empty() && !NamesOneFileTwice(options, error) && AreTracesKnown(options, error);
}

}  // namespace

std::optional<Options> ParseOptions(const std::vector<std::wstring> &arguments, std::wstring &error) {
    Options options;
    std::size_t next = 0;
    while (next < arguments.size() && IsOption(arguments[next])) {
        if (arguments[next] == L"--") {
            ++next;
            break;
        }
        if (!TakeOption(options, arguments, next, error))
            return std::nullopt;
    }
    if (next < arguments.size())
        options.script = arguments[next++];
    while (next < arguments.size())
        options.arguments.push_back(arguments[next++]);
    if (!IsComplete(options, error))
        return std::nullopt;
    return options;
}

const char *HelpText() {
    return "Runs Lua scripts against fc.dll, as the agent would.\n"
           "\n"
           "  fc-host [options] SCRIPT [ARGUMENTS...]\n"
           "  fc-host [options] -i\n"
           "  fc-host --check-policy FILE\n"
           "  fc-host --check-config FILE\n"
           "\n"
           "  -i                 opens a prompt instead of running a script\n"
           "  --clock steps      runs on a simulated clock that stands still until all wait, and is the same in each "
           "run\n"
           "  --fast N           runs on a simulated clock that is N times faster than the real one\n"
           "  --trace COMPONENT  prints the trace of a component, * for all; may be repeated\n"
           "  --quiet            prints neither traces, events, log lines nor steps\n"
           "  --events FILE      writes all events and notifications to a JSON file at the end\n"
           "  --report FILE      writes a HTML page about health and drivers at the end\n"
           "  --settings FILE    keeps the agent's settings in a file\n"
           "  --check-policy FILE, --check-config FILE\n"
           "                     tell what the module takes of a policy, or of a vt_filter.conf, and would do with "
           "it,\n"
           "                     with status 1 if there is something to correct\n"
           "  --help, --version\n"
           "\n"
           "A script finds the module with require \"fc\" and the agent's side in the global table host.\n"
           "It ends with status 0, with 1 after an error in the script, with 2 when it can't be run, and\n"
           "with the whole number from 0 to 255 that the script returns or gives to os.exit. Ctrl-C ends it\n"
           "with 130; what was gathered so far is written then, and a second Ctrl-C ends it at once.\n";
}
