#include "BindingsFixture.h"

#include <algorithm>
#include <iterator>

#include "WindowsDriverInstaller/reports/StackDump.h"

namespace {

bool TellsOfStep(const std::string &line) {
    return line.starts_with(">") || line.starts_with("<");
}

std::string WithoutIndent(const std::string &line) {
    return line.substr(std::min(line.find_first_not_of(' '), line.size()));
}

/// @param text  "call|the system's error text (code)".
std::string WithoutWords(const std::string &text) {
    const std::size_t words = text.find('|');
    const std::size_t code = text.rfind(" (");
    if (words == text.npos || code == text.npos)
        return text;
    return text.substr(0, words) + text.substr(code);
}

}  // namespace

Texts WithoutSteps(const Texts &lines) {
    Texts rest;
    for (const std::string &line : lines) {
        const std::string text = WithoutIndent(line);
        if (!TellsOfStep(text))
            rest.push_back(text);
    }
    return rest;
}

Texts FromFirst(const Texts &lines, const std::string &begin) {
    const auto first =
        std::find_if(lines.begin(), lines.end(), [&begin](const std::string &line) { return line.starts_with(begin); });
    return {first, lines.end()};
}

Texts With(const Texts &lines, const std::string &text) {
    Texts found;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(found),
                 [&text](const std::string &line) { return line.find(text) != line.npos; });
    return found;
}

Texts Failures(const InstallOutcome &installation) {
    Texts failures;
    for (const std::string &text : installation.EventTexts(3005))
        failures.push_back(WithoutWords(text));
    return failures;
}

BindingsFixture::BindingsFixture() {
    simulation().GetDevices().Remove(
        L"PCI\\VEN_8086&DEV_100E");  // the removal's; it would match the first adapter's model
    // What is allocated once per process or thread is not a leak of a test.
    PrepareStackDump();
    (void)Records();
}

void BindingsFixture::PutFilter() {
    network().Put({.id = L"qbimvta"});
    for (const wchar_t *node : {kFirst, kSecond})
        network().Bind(node, L"qbimvta");
}

std::wstring BindingsFixture::PutNamed(const std::wstring &name, const std::vector<BYTE> &mac, DWORD characteristics,
                                       bool boundToIp) {
    std::wstring node = L"PCI\\" + name + L"\\1";
    network().PutAdapter({.id = L"PCI\\" + name,
                          .bindName = L"{" + name + L"}",
                          .pnpDevNodeId = node,
                          .displayName = name,
                          .characteristics = characteristics,
                          .mac = mac});
    if (boundToIp)
        network().Bind(node, L"ms_tcpip");
    if (network().Has(L"qbimvta"))
        network().Bind(node, L"qbimvta");
    simulation().GetDevices().Put({.instanceId = node});
    return node;
}

InTest BindingsFixture::ReadInto(TcpAdapterList &adapters) {
    return Watch([&] { return GetTcpAdaptersInTest(dom, adapters); });
}

TcpAdapterList BindingsFixture::Records() {
    TcpAdapterList adapters;
    const InTest read = ReadInto(adapters);
    EXPECT_EQ(read.events, Texts{});
    EXPECT_EQ(read.left, Texts{});
    return adapters;
}

InTest BindingsFixture::SetBindings(bool enable, const TcpAdapterList *adapters, bool useIpState) {
    return Watch([&] { return SetFilterBindingsInTest(dom, enable, adapters, useIpState); });
}

InTest BindingsFixture::UnbindUnsuitable() {
    return Watch([&] { return UnbindUnsuitableAdaptersInTest(dom); });
}

InTest BindingsFixture::Watch(const std::function<ThreadInTest()> &call) {
    Removal records;
    TakeRecords(records);  // from before
    records = {};
    (void)simulation().GetJournal().Take();
    const Simulator::BalanceSnapshot before = balance().Take();
    const ThreadInTest called = call();
    InTest watched;
    watched.result = called.result;
    watched.failedStep = called.failedStep;
    watched.left = LeftSince(before);
    EXPECT_EQ(called.topStep, 0U) << "a step is left on the stack";
    TakeRecords(records);
    watched.lines = WithoutSteps(records.ThreadLog());
    for (const std::string &line : records.ThreadLog()) {
        if (TellsOfStep(WithoutIndent(line)))
            watched.steps.push_back(line);
    }
    if (!watched.steps.empty())
        watched.steps.erase(watched.steps.begin());
    watched.errors = records.Lines(wxLOG_Error);
    for (const std::string &event : records.events) {
        const std::size_t number = event.find('|');
        watched.events.push_back(event.substr(0, number) + " " + WithoutWords(event.substr(number + 1)));
    }
    return watched;
}

Texts BindingsFixture::LeftSince(const Simulator::BalanceSnapshot &before) {
    Texts left;
    for (const Simulator::BalanceItem &item : Simulator::Balance::Left(before, balance().Take())) {
        if (item.kind != std::string(Simulator::Kind::kBlock))
            left.push_back(item.kind);
    }
    return left;
}

InstallOutcome BindingsFixture::InstallInBalance() {
    const Simulator::BalanceSnapshot before = balance().Take();
    InstallOutcome installation = Install();
    EXPECT_EQ(LeftSince(before), Texts{});
    return installation;
}

Texts BindingsFixture::CallsOfWork(const std::set<std::string> &functions) {
    Texts calls = Calls(functions);
    std::erase_if(calls, [](const std::string &call) { return call == "Sleep(250)" || call == "Sleep(10)"; });
    return calls;
}
