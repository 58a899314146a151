// docs/failures.md: each row of its table is played on the simulated machine, as the page itself tells.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "HostProcess.h"

namespace {

using Lines = std::vector<std::string>;

/// Lines of a log, one below the other. Each text is a part of its line.
struct LogPassage {
    std::string text;  ///< As the page has it.
    bool isAbsent = false;
    bool isOfAgent = false;  ///< In the agent's log, and not in the event's.
    bool isAtEnd = false;
    Lines lines{};
};

/// What the log shows. All of it has to be there.
using LogSign = std::vector<LogPassage>;

/// A row of the table, with what is played for it. @see docs/failures.md
struct FailureRow {
    std::string id;                     ///< "I1" for an installation, "U1" for an upgrade, "R1" for a removal.
    std::set<std::string> reported;     ///< What each play reports is one of these, and each of these is reported.
    std::vector<LogSign> signs;         ///< Each play shows one of these, and each of these is shown.
    std::string state;                  ///< Driver, callout, lock and bindings, with bars between.
    std::vector<std::string> remedies;  ///< In their order.
    std::vector<std::string> plays;     ///< Lua.
};

std::vector<std::string> Split(const std::string &text, const std::string &separator) {
    std::vector<std::string> parts;
    std::size_t begin = 0;
    for (std::size_t at = text.find(separator); at != std::string::npos; at = text.find(separator, begin)) {
        parts.push_back(text.substr(begin, at - begin));
        begin = at + separator.size();
    }
    parts.push_back(text.substr(begin));
    return parts;
}

/// The cells of a table's line whose first cell is a row's id; nothing for any other line.
std::vector<std::string> RowCells(const std::string &line) {
    const std::size_t size = line.size();
    if (size < 6 || !line.starts_with("| ") || !line.ends_with(" |") ||
        std::string("IUR").find(line[2]) == std::string::npos || line[3] < '0' || line[3] > '9')
        return {};
    return Split(line.substr(2, size - 4), " | ");
}

bool TakePrefix(std::string &text, const std::string &prefix) {
    const bool isThere = text.starts_with(prefix);
    if (isThere)
        text.erase(0, prefix.size());
    return isThere;
}

/// The text without the marks of code around it.
std::string CodeIn(const std::string &text) {
    EXPECT_TRUE(text.size() > 2 && text.front() == '`' && text.back() == '`') << text;
    return text.size() > 2 ? text.substr(1, text.size() - 2) : text;
}

LogPassage ReadPassage(std::string text) {
    LogPassage passage{.text = text};
    passage.isOfAgent = TakePrefix(text, "agent's log: ");
    passage.isAtEnd = TakePrefix(text, "ends with ");
    passage.isAbsent = TakePrefix(text, "no ");
    for (const std::string &line : Split(text, " then "))
        passage.lines.push_back(CodeIn(line));
    return passage;
}

FailureRow ReadRow(const std::vector<std::string> &cells) {
    FailureRow row;
    row.id = cells[0];
    row.state = cells[4] + "|" + cells[5] + "|" + cells[6] + "|" + cells[7];
    for (const std::string &reported : Split(cells[2], " / "))
        row.reported.insert(reported);
    for (const std::string &sign : Split(cells[3], " / ")) {
        row.signs.emplace_back();
        for (const std::string &passage : Split(sign, " and "))
            row.signs.back().push_back(ReadPassage(passage));
    }
    if (cells[8] != "none needed")
        row.remedies = Split(cells[8], ", ");
    return row;
}

/// The rows in their order.
std::vector<FailureRow> FailureRows() {
    std::istringstream lines(TextOfFile(TestData("docs/failures.md").wstring()));
    std::vector<FailureRow> rows;
    std::map<std::string, std::vector<std::string>> plays;
    for (std::string line; std::getline(lines, line);) {
        const std::vector<std::string> cells = RowCells(line);
        if (cells.size() == 9)
            rows.push_back(ReadRow(cells));
        else if (cells.size() == 2)
            plays[cells[0]] = Split(CodeIn(cells[1]), "`; `");
        else
            EXPECT_TRUE(cells.empty()) << line;
    }
    for (FailureRow &row : rows)
        row.plays = plays[row.id];
    EXPECT_EQ(rows.size(), plays.size()) << "a row without a play, or a play without a row";
    return rows;
}

// Makes the machine, and what the plays use.
const std::string kMachine = R"(
    local KIND = ...
    local machine, folder = host.machine, host.machine.folders().program_files
    local ETHERNET, WIFI = [[PCI\VEN_8086&DEV_100E\1]], [[PCI\VEN_14E4&DEV_43A0\1]]
    local ORPHAN, ORPHAN_KEY = [[ROOT\QBIMVTA_MP\0000]], [[SYSTEM\CurrentControlSet\Enum\Root\QBIMVTA_MP]]
    local AGENT = "Quillon Vantry Agent Installer" -- as the module calls itself where it takes the lock
    local OLD, NEW = "2.0.0.0", "2.1.0.0"

    local function ship(version, results)
        machine.write_driver(folder .. "qbimvta.sys", version)
        machine.put_installable { id = "qbimvta", loads = version, results = results }
    end

    local function write_inf_files()
        write(folder .. "netqbimvta.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
        write(folder .. "netqbimwfp.inf", "[DefaultInstall.Services]\r\nAddService = qbimwfp,2,callout\r\n" ..
            "[DefaultUninstall.Services]\r\nDelService = qbimwfp\r\n")
    end

    local function act()
        require "fc"
        return SLB.filter[KIND == "R" and "UninstallDriver" or "InstallOrUpdateDriver"](host.dom(), folder, folder)
    end

    -- A program that finds the lock held learns of it when its time to wait is over. Then the rest takes a moment.
    local function slow_down()
        host.fault { call = "INetCfgLock::AcquireWriteLock", delay = 15 }
        host.fault { call = "INetCfg::Initialize", delay = 1 }
    end

    -- A miniport that no component removes. Whoever boots the machine without its key finds it gone.
    local function put_orphan()
        machine.put_adapter { node = ORPHAN, name = "Filter miniport", connected = false }
        machine.put_key(ORPHAN_KEY)
    end

    -- Each copy of an INF file gets what Windows keeps for it.
    local function complete_inf_files()
        for _, name in ipairs(machine.inventory().inf_files) do
            write(machine.folders().inf .. name:gsub("inf$", "pnf"), "compiled")
            write(machine.folders().catalogs .. name:gsub("inf$", "cat"), "signed")
        end
    end

    local function install_old()
        require "fc"
        assert(SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder))
        assert(host.installations()[1].outcome == "installed", host.installations()[1].text)
        machine.bind(WIFI, "qbimvta", false)
        write(machine.folders().inf .. "oem7.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
    end

    local function replace_filter(component)
        assert(SLB.filter.UninstallDriver(host.dom(), folder, folder))
        component.id = "qbimvta"
        machine.put_component(component)
        machine.bind(ETHERNET, "qbimvta")
        machine.bind(WIFI, "qbimvta", false)
        machine.put_service("qbimwfp", "running")
        host.driver.present, host.driver.version = true, OLD
    end

    local function ready()
        machine.put_component { id = "ms_tcpip", class = "protocol" }
        machine.put_adapter { node = ETHERNET, name = "Ethernet", ip = "192.0.2.10", gateway = "192.0.2.1" }
        machine.put_adapter { node = WIFI, name = "Wi-Fi", ip = "198.51.100.7", gateway = "198.51.100.1" }
        machine.bind(ETHERNET, "ms_tcpip")
        machine.bind(WIFI, "ms_tcpip")
        write_inf_files()
        host.driver.present = false
        ship(KIND == "I" and NEW or OLD)
        if KIND ~= "I" then install_old() end
        if KIND == "U" then ship(NEW) end
    end
)";

// What the machine is like, and what was reported.
const std::string kState = R"(
    local function has_filter()
        for _, id in ipairs(machine.inventory().components) do
            if id == "qbimvta" then return true end
        end
        return false
    end

    local function is_bound(node)
        for _, adapter in ipairs(machine.adapters()) do
            for _, id in ipairs(adapter.node == node and adapter.bound or {}) do
                if id == "qbimvta" then return true end
            end
        end
        return false
    end

    local function report(result, events)
        local texts = {}
        for _, event in ipairs(events) do
            if event.number == 1004 then
                texts[#texts + 1] = "1004 `" .. event.text:match("^[^|]*") .. "`"
            elseif event.kind == "event" and (event.number == 1006 or event.number == 1007) then
                texts[#texts + 1] = tostring(event.number)
            end
        end
        if KIND == "R" or not result then texts[#texts + 1] = "`" .. tostring(result) .. "`" end
        return table.concat(texts, ", ")
    end

    -- The worker's log in event 1004 or 1007. A removal has no such event: its worker's log is in the agent's.
    local function log_of_event(events)
        for _, event in ipairs(events) do
            if event.number == 1004 then return event.text:match("^[^|]*|(.*)$") end
            if event.number == 1007 then return event.text:match("^[^|]*|[^|]*|(.*)$") end
        end
        return ""
    end

    local function log_of_agent()
        local texts = {}
        for _, line in ipairs(host.log()) do texts[#texts + 1] = line.text end
        return table.concat(texts, "\n")
    end

    local function tell(name, text)
        for line in text:gmatch("[^\r\n]+") do print(name .. "|" .. line) end
    end

    local function play()
        host.events()
        host.log()
        local result = act()
        local events, runs = host.events(), host.installations()
        tell("reported", report(result, events))
        tell("reboot", tostring(runs[#runs].reboot))
        tell("agent", log_of_agent())
        if KIND ~= "R" then tell("event", log_of_event(events)) end
    end

    local function driver_state()
        if not host.driver.present then return "none" end
        return KIND ~= "U" and "runs" or host.driver.version == NEW and "new" or "old"
    end

    local function binding_state()
        if not has_filter() then return "none" end
        return is_bound(ETHERNET) and (is_bound(WIFI) and "all" or "kept") or "lost"
    end

    local function state()
        local inventory = machine.inventory()
        local callout = ({ running = "runs", stopped = "stopped" })[inventory.services.qbimwfp] or "gone"
        local lock = not inventory.lock and "free" or inventory.lock == AGENT and "agent" or "other"
        return table.concat({ driver_state(), callout, lock, binding_state() }, "|")
    end
)";

// The remedies of the page, and whether they have helped.
const std::string kRemedies = R"(
    local runs_before, has_rebooted = 0, false

    local function remove_cause()
        host.clear_faults()
        local lock = machine.inventory().lock
        if lock and lock ~= AGENT then machine.unlock_network() end
        write_inf_files()
        if KIND ~= "R" then ship(NEW) end
        runs_before = #host.installations()
    end

    local function act_again()
        if machine.inventory().lock then slow_down() end
        has_rebooted = false
        act()
        host.clear_faults()
    end

    local function reboot()
        local callout = machine.inventory().services.qbimwfp
        if callout then machine.put_service("qbimwfp", callout, "system") end
        machine.reboot()
        local has_key = table.concat(machine.inventory().keys, " "):find(ORPHAN_KEY, 1, true)
        if not has_key then pcall(machine.remove_adapter, ORPHAN) end
        has_rebooted = true
    end

    local remedies = {
        ["install again"] = act_again,
        ["remove again"] = act_again,
        ["force"] = function()
            host.set_setting("vtp.filter.ForceDriverInstall", true)
            act_again()
            host.set_setting("vtp.filter.ForceDriverInstall", false)
        end,
        ["restart the agent"] = host.restart_module,
        ["reboot"] = reboot,
        ["start the callout"] = function() assert(SLB.filter.StartWFPDriver(true)) end,
        ["unbind again"] = function()
            assert(is_bound(WIFI), "there is nothing to be unbound again")
            machine.bind(WIFI, "qbimvta", false)
        end,
    }

    -- What is wrong with the machine, or "well".
    local function complaint()
        local wanted = { I = "runs|runs|free|all", U = "new|runs|free|kept", R = "none|gone|free|none" }
        local inventory, all = machine.inventory(), host.installations()
        local last = all[#all]
        if state() ~= wanted[KIND] then return state() end
        if has_filter() ~= (KIND ~= "R") then return "the component" end
        if KIND == "R" and #inventory.inf_files > 0 then return "INF files are left" end
        if table.concat(inventory.devices, " "):find("QBIMVTA_MP") then return "a device is left" end
        if last.reboot and not has_rebooted then return "a reboot is needed" end
        if last.outcome == "failed" then return "nothing has succeeded since" end
        if KIND ~= "R" and #all > runs_before and last.outcome == "nothing" then return "nothing was done" end
        return "well"
    end
)";

std::string QuotedList(const std::vector<std::string> &texts) {
    std::string list;
    for (const std::string &text : texts)
        list += "\"" + text + "\", ";
    return list;
}

/// What a play and the remedies have told.
struct Played {
    std::map<std::string, Lines> told;

    /// The only line of that name.
    [[nodiscard]] std::string The(const std::string &name) const {
        const auto found = told.find(name);
        return found == told.end() || found->second.size() != 1 ? "not told" : found->second[0];
    }
    [[nodiscard]] Lines LogOf(const std::string &name) const {
        const auto found = told.find(name);
        return found == told.end() ? Lines() : found->second;
    }
    [[nodiscard]] std::string Text() const {
        std::string text;
        for (const auto &[name, lines] : told)
            for (const std::string &line : lines)
                text.append(name).append("|").append(line).append("\n");
        return text;
    }
};

/// Plays it, then the remedies.
Played Play(char kind, const std::string &play, const std::vector<std::string> &remedies) {
    std::string machine = kMachine;
    machine.replace(machine.find("..."), 3, std::string("\"") + kind + "\"");
    const HostRun run = RunPassingScript(kScriptHelpers + machine + kState + kRemedies + R"(
        ready()
        )" + play + R"(
        play()
        tell("state", state())
        remove_cause()
        for _, remedy in ipairs { )" + QuotedList(remedies) +
                                             R"( } do remedies[remedy]() end
        tell("complaint", complaint())
    )",
                                         {L"--quiet", L"--clock", L"steps"});
    std::string out = run.out;
    std::erase(out, '\r');
    Played played;
    for (const std::string &line : Split(out, "\n"))
        if (const std::size_t bar = line.find('|'); bar != line.npos)
            played.told[line.substr(0, bar)].push_back(line.substr(bar + 1));
    return played;
}

bool HasAt(const Lines &log, std::size_t place, const Lines &parts) {
    for (std::size_t i = 0; i < parts.size(); ++i)
        if (log[place + i].find(parts[i]) == std::string::npos)
            return false;
    return true;
}

bool Has(const Lines &log, const LogPassage &passage) {
    if (log.size() < passage.lines.size())
        return false;
    const std::size_t last = log.size() - passage.lines.size();
    for (std::size_t place = passage.isAtEnd ? last : 0; place <= last; ++place)
        if (HasAt(log, place, passage.lines))
            return true;
    return false;
}

bool Shows(const Played &played, const LogSign &sign) {
    const bool hasEvent = played.told.contains("event");
    for (const LogPassage &passage : sign) {
        const Lines log = played.LogOf(passage.isOfAgent || !hasEvent ? "agent" : "event");
        if (Has(log, passage) == passage.isAbsent)
            return false;
    }
    return true;
}

bool IsOfAgent(const LogSign &sign) {
    return sign[0].isOfAgent;
}

/// The rows that a reader of the page finds: those that fit in the agent's log, or else those that fit in the event's.
std::vector<const FailureRow *> RowsThatFit(const std::vector<FailureRow> &rows, char kind, const Played &played) {
    std::vector<const FailureRow *> ofAgent;
    std::vector<const FailureRow *> ofEvent;
    for (const FailureRow &row : rows) {
        if (row.id[0] != kind || !row.reported.contains(played.The("reported")))
            continue;
        for (const LogSign &sign : row.signs)
            if (Shows(played, sign))
                (IsOfAgent(sign) ? ofAgent : ofEvent).push_back(&row);
    }
    return ofAgent.empty() ? ofEvent : ofAgent;
}

/// Whoever looks up what was reported finds the row, and none that says something else.
void ExpectToBeFound(const FailureRow &row, const std::vector<FailureRow> &rows, const Played &played) {
    bool isFound = false;
    for (const FailureRow *fitting : RowsThatFit(rows, row.id[0], played)) {
        isFound = isFound || fitting == &row;
        EXPECT_EQ(fitting->state, row.state) << "row " << fitting->id << " fits, too\n" << played.Text();
        EXPECT_EQ(fitting->remedies, row.remedies) << "row " << fitting->id << " fits, too\n" << played.Text();
    }
    EXPECT_TRUE(isFound) << "the row does not fit\n" << played.Text();
}

void PlayRow(const FailureRow &row, const std::vector<FailureRow> &rows) {
    SCOPED_TRACE("row " + row.id);
    EXPECT_FALSE(row.plays.empty());
    std::set<std::string> reported;
    std::set<const LogSign *> shown;
    for (const std::string &play : row.plays) {
        SCOPED_TRACE(play);
        const Played played = Play(row.id[0], play, row.remedies);
        reported.insert(played.The("reported"));
        EXPECT_EQ(played.The("state"), row.state);
        EXPECT_EQ(played.The("complaint"), "well") << "the remedy does not help";
        const bool hasReboot = std::find(row.remedies.begin(), row.remedies.end(), "reboot") != row.remedies.end();
        EXPECT_TRUE(hasReboot || played.The("reboot") == "false") << "host.installations() asks for a reboot";
        ExpectToBeFound(row, rows, played);
        for (const LogSign &sign : row.signs)
            if (Shows(played, sign))
                shown.insert(&sign);
    }
    EXPECT_EQ(reported, row.reported);
    for (const LogSign &sign : row.signs)
        EXPECT_TRUE(shown.contains(&sign)) << "no log shows: " << sign[0].text;
}

/// @return how many there were.
std::size_t PlayRowsOf(char kind) {
    std::size_t count = 0;
    const std::vector<FailureRow> rows = FailureRows();
    for (const FailureRow &row : rows) {
        if (row.id[0] == kind) {
            PlayRow(row, rows);
            ++count;
        }
    }
    return count;
}

}  // namespace

TEST(FailureDocument, TellsTheStateAndTheRemedyAfterAnInstallation) {
    EXPECT_GE(PlayRowsOf('I'), 15U);
}

TEST(FailureDocument, TellsTheStateAndTheRemedyAfterAnUpgrade) {
    EXPECT_GE(PlayRowsOf('U'), 20U);
}

TEST(FailureDocument, TellsTheStateAndTheRemedyAfterARemoval) {
    EXPECT_GE(PlayRowsOf('R'), 12U);
}

TEST(FailureDocument, RightlySaysThatAnotherInstallationIsNotEnoughAfterAFailedApply) {
    const std::string play = "host.fault { call = \"INetCfg::Apply\", fail = 0x80004005 }";
    EXPECT_EQ(Play('I', play, {"install again"}).The("complaint"), "nothing was done");
    EXPECT_EQ(Play('U', play, {"install again", "unbind again"}).The("complaint"), "nothing was done");
}

TEST(FailureDocument, RightlySaysThatAnotherAttemptIsNotEnoughWhileAKilledWorkerHoldsTheLock) {
    const std::string play = "host.fault { call = \"INetCfgClassSetup::DeInstall\", hang = true }";
    EXPECT_EQ(Play('U', play, {"install again"}).The("complaint"), "old|gone|agent|kept");
    EXPECT_EQ(Play('R', play, {"remove again"}).The("complaint"), "runs|gone|agent|kept");
}
