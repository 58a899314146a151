#include "FirewallFixture.h"

#include <algorithm>
#include <cstring>

#include "LogCollector.h"
#include "NativeKeys.h"
#include "vta_core_control.h"

namespace {

VARIANT_BOOL SwitchOf(int mask, int profile) {
    return (mask & profile) != 0 ? VARIANT_TRUE : VARIANT_FALSE;
}

void Count(const Simulator::BalanceSnapshot &snapshot, int by, LeftThings &things) {
    for (const Simulator::BalanceItem &item : snapshot.items) {
        if (std::strcmp(item.kind, Simulator::Kind::kBlock) != 0)
            things[item.kind] += by;
    }
}

LeftThings LeftBetween(const Simulator::BalanceSnapshot &before, const Simulator::BalanceSnapshot &after) {
    LeftThings left;
    Count(after, 1, left);
    Count(before, -1, left);
    std::erase_if(left, [](const auto &thing) { return thing.second == 0; });
    return left;
}

}  // namespace

Lines operator+(Lines first, const Lines &second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

StoredFlag MaskFlag(DWORD mask) {
    StoredFlag flag{REG_DWORD, std::vector<std::uint8_t>(sizeof mask)};
    std::memcpy(flag.bytes.data(), &mask, sizeof mask);
    return flag;
}

FirewallFixture::FirewallFixture() : ModuleFixture({.folders = false, .setup = false}) {
    simulation().GetClock().Step(Simulator::Clock::AutoAdvance::Sleeps);
    PutService({.status = {SERVICE_RUNNING}});
    VtaCore::Control::EnableTrace("*", false);
    VtaCore::Control::EnableTrace("FC-WFW", true);
    (void)TakeTracedLines();
}

FirewallFixture::~FirewallFixture() {
    VtaCore::Control::EnableTrace("*", false);
    for (auto left = balance().Take().Count(Simulator::Kind::kComInitialisation); left != 0; --left)
        CoUninitialize();
}

void FirewallFixture::MakeSystemOld() {
    simulation().GetMachine().osMajor = 5;
    simulation().GetMachine().osMinor = 1;
}

void FirewallFixture::PutService(const Simulator::Service &service) {
    simulation().GetServices().Put(kOldService, service);
}

Simulator::Service FirewallFixture::OldService() {
    return simulation().GetServices().Get(kOldService);
}

void FirewallFixture::PutProfiles(int mask) {
    simulation().GetFirewall().Use([mask](Simulator::FirewallState &state) {
        state.domainProfile = SwitchOf(mask, 1);
        state.privateProfile = SwitchOf(mask, 2);
        state.publicProfile = SwitchOf(mask, 4);
    });
}

int FirewallFixture::Profiles() {
    const Simulator::FirewallState state = simulation().GetFirewall().Read();
    return (state.domainProfile != VARIANT_FALSE ? 1 : 0) | (state.privateProfile != VARIANT_FALSE ? 2 : 0) |
           (state.publicProfile != VARIANT_FALSE ? 4 : 0);
}

void FirewallFixture::PutCurrentProfile(VARIANT_BOOL enabled) {
    simulation().GetFirewall().Use([enabled](Simulator::FirewallState &state) { state.currentProfile = enabled; });
}

VARIANT_BOOL FirewallFixture::CurrentProfile() {
    return simulation().GetFirewall().Read().currentProfile;
}

void FirewallFixture::PutFlag(const StoredFlag &flag) {
    simulation().GetRegistry().PutBytes(HKEY_LOCAL_MACHINE, kAgentKey, kFlagName, flag.type, flag.bytes);
}

std::optional<StoredFlag> FirewallFixture::Flag() {
    const Simulator::InsideSimulator inside;
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kAgentKey, 0, KEY_READ, &opened) != ERROR_SUCCESS)
        return std::nullopt;
    const Simulator::UniqueKey key(opened);
    StoredFlag flag{};
    DWORD size = 0;
    // RegGetValueW would terminate a text that is stored without a zero.
    if (RegQueryValueExW(key.get(), kFlagName, nullptr, &flag.type, nullptr, &size) != ERROR_SUCCESS)
        return std::nullopt;
    flag.bytes.resize(size);
    EXPECT_EQ(RegQueryValueExW(key.get(), kFlagName, nullptr, nullptr, flag.bytes.data(), &size), ERROR_SUCCESS);
    return flag;
}

Lines FirewallFixture::TurnOff() {
    const Answer answer = Call("DisableNativeFirewall()");
    EXPECT_EQ(answer.result, "0");
    return answer.log;
}

Lines FirewallFixture::TurnOn() {
    const Answer answer = Call("EnableNativeFirewall()");
    EXPECT_EQ(answer.result, "0");
    return answer.log;
}

FirewallFixture::Answer FirewallFixture::Call(const std::string &call) {
    (void)simulation().GetJournal().Take();
    const Simulator::BalanceSnapshot before = balance().Take();
    const std::uint64_t begin = simulation().GetClock().TickMs();
    Answer answer;
    answer.result = lua.Eval("SLB.filter." + call);
    m_tookMs = simulation().GetClock().TickMs() - begin;
    m_left = LeftBetween(before, balance().Take());
    for (const TracedLine &line : TakeTracedLines()) {
        EXPECT_EQ(line.component, "FC-WFW") << line.message;
        EXPECT_EQ(line.function.rfind("WindowsFirewall::", 0), 0U) << line.function << ": " << line.message;
        answer.log.push_back(line.message);
    }
    return answer;
}

Lines FirewallFixture::Calls(const std::string &begin) {
    Lines names = simulation().GetJournal().Names();
    std::erase_if(names, [&begin](const std::string &name) { return name.rfind(begin, 0) != 0; });
    return names;
}
