#include "InstallMachine.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <utility>

using Simulator::NetworkAdapter;
using Simulator::NetworkMoment;
using Simulator::NetworkState;

namespace {

void ReplaceAll(std::string &text, const std::string &what, const std::string &by) {
    for (std::size_t at = text.find(what); at != text.npos; at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
}

}  // namespace

EventObserver::EventObserver(std::function<void(const VtaCore::Control::Event &)> onEvent)
    : m_onEvent(std::move(onEvent)) {
    VtaCore::Control::SetObserver(this);
}

EventObserver::~EventObserver() {
    VtaCore::Control::SetObserver(nullptr);
}

InstallMachine::~InstallMachine() {
    VtaCore::Control::SetShouldExit(dom, false);
}

std::string InstallMachine::Report(const std::string &call, unsigned long code) {
    char number[16] = "";
    std::snprintf(number, sizeof(number), "%#lx", code);
    return call + "|" + wxSysErrorMsgStr(code).utf8_string() + " (" + number + ")";
}

std::string InstallMachine::Plain(const std::string &line) {
    static const std::string marker = "is at address 0x";
    std::string plain = line;
    if (const std::size_t at = line.find(marker); at != line.npos) {
        const std::string digits = line.substr(at + marker.size());
        EXPECT_EQ(digits.size(), 2 * sizeof(void *)) << line;
        const bool isNull = digits.find_first_not_of('0') == digits.npos;
        plain = line.substr(0, at) + "is at address " + (isNull ? "<null>" : "<address>");
    }
    ReplaceAll(plain, simulation().GetFolders().Root().string(), "<folder>");
    return plain;
}

std::string InstallMachine::WorkerLog(const InstallOutcome &outcome) {
    const Lines succeeded = outcome.EventTexts(1007);
    const Lines failed = outcome.EventTexts(1004);
    if (succeeded.size() + failed.size() != 1) {
        ADD_FAILURE() << "There is not exactly one event of the outcome.";
        return {};
    }
    const std::string text = succeeded.empty() ? failed[0] : succeeded[0].substr(succeeded[0].find('|') + 1);
    std::string lines = "\n";
    for (std::size_t at = text.find('|') + 1; at < text.size();) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        lines += Plain(text.substr(at, end - at)) + "\n";
        at = end + 1;
    }
    return lines;
}

std::string InstallMachine::WatchdogLog(const InstallOutcome &outcome) {
    std::string text = "\n";
    for (const std::string &line : outcome.ThreadLog())
        text += Plain(line) + "\n";
    return text;
}

std::string InstallMachine::FailedStep(const InstallOutcome &outcome) {
    const Lines failed = outcome.EventTexts(1004);
    if (failed.size() != 1 || !outcome.EventTexts(1007).empty())
        return {};
    return failed[0].substr(0, failed[0].find('|'));
}

bool InstallMachine::Succeeded(const InstallOutcome &outcome) {
    return outcome.result && outcome.EventTexts(1007).size() == 1 && outcome.EventTexts(1004).empty();
}

bool InstallMachine::Has(const Lines &lines, const std::string &line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::size_t InstallMachine::Count(const std::string &text, const std::string &part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size()))
        ++count;
    return count;
}

std::size_t InstallMachine::Reboots(const InstallOutcome &outcome) {
    return static_cast<std::size_t>(
        std::count_if(outcome.notifications.begin(), outcome.notifications.end(), [](const auto &notification) {
            return notification.kind == VtaCore::Control::Notification::Kind::Reboot && notification.code == 5;
        }));
}

std::size_t InstallMachine::CallsOf(const std::string &function) {
    return simulation().GetJournal().Count(function);
}

std::size_t InstallMachine::Removals(const InstallOutcome &outcome) {
    return Count(WorkerLog(outcome), "UninstallDriver running.");
}

std::string InstallMachine::SystemFile() {
    return (simulation().GetFolders().System32() / L"drivers" / L"qbimvta.sys").string();
}

void InstallMachine::BreakNetworkWhenInstalled() {
    onMoment = [this](const NetworkMoment &moment) {
        if (moment.what == What::Installed)
            TakeAllAdaptersOffline();
    };
}

void InstallMachine::TakeAllAdaptersOffline() {
    for (const wchar_t *node : {kFirst, kSecond})
        network().ChangeAdapter(node, [](NetworkAdapter &adapter) { adapter.mediaStatus = 1; });
}

void InstallMachine::KeepComponentOnRemoval(HRESULT deInstallResult) {
    network().Use([&](NetworkState &state) {
        Simulator::NetworkComponent *filter = Simulator::ComponentWithId(state, L"qbimvta");
        filter->deInstallsUntilGone = 0;
        filter->deInstallResult = deInstallResult;
    });
}

std::size_t InstallMachine::Polls() {
    const auto calls = simulation().GetJournal().Entries();
    return static_cast<std::size_t>(std::count_if(calls.begin(), calls.end(), [this](const auto &call) {
        return call.thread == m_caller && call.function == "Sleep" && call.arguments == "250";
    }));
}

bool InstallMachine::AwaitPolls(unsigned polls) {
    // The current sleep began before: the poll after it is the first that counts.
    const std::size_t enough = Polls() + polls + 1;
    return Await(kPatienceMs, [this, enough] { return returned || Polls() >= enough; }) && !returned;
}

bool InstallMachine::AwaitReturn() {
    return Await(kPatienceMs, [this] { return returned.load(); });
}

void InstallMachine::AdvanceMs(std::int64_t milliseconds) {
    const std::chrono::milliseconds by(milliseconds);
    EXPECT_TRUE(Await(kPatienceMs, [&] { return clock().AdvanceIfFollowerSleeps(by); }));
}

void InstallMachine::PassTime(std::int64_t milliseconds, std::uint64_t leapMs) {
    (void)m_watcherClock.AdvanceTo(clock().TickMs() + static_cast<std::uint64_t>(milliseconds), leapMs, returned);
}

InstallOutcome InstallMachine::InstallHungIn(const std::string &function, unsigned nth, std::int64_t milliseconds) {
    return InstallHungBy(faults().HangNth(function, nth), milliseconds);
}

InstallOutcome InstallMachine::InstallHungBy(const FaultPlan &plan, std::int64_t milliseconds) {
    InstallOutcome outcome = InstallWhile([&] {
        EXPECT_TRUE(plan->WaitUntilHit(kPatienceMs)) << "the call that should hang is never made";
        PassTime(milliseconds);
        EXPECT_TRUE(AwaitReturn());
        plan->Release();
    });
    faults().Clear();
    return outcome;
}
