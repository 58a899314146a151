// Adapters and the filter's bindings to them: calls of the installer thread's own code, and installations, each with
// what it left open.
#pragma once

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "BindingsInTest.h"
#include "InstallFixture.h"

using Texts = std::vector<std::string>;

/// What one call of the code in the test did.
struct InTest {
    bool result = false;
    std::uint32_t failedStep = 0;
    Texts lines;   ///< Of the thread's log, but for those that tell of steps, without what they are indented by.
    Texts steps;   ///< Those that tell of steps, but for the first, which the object's making logs.
    Texts errors;  ///< Lines of level 1.
    Texts events;  ///< As "number text (code)".
    Texts left;    ///< The kinds of what was made and not given back.
};

class BindingsFixture : public InstallFixture {
protected:
    BindingsFixture();

    /// The filter is there and bound to the two adapters, without an installation.
    void PutFilter();
    /// An adapter that is connected and known to IP Helper; its pnpDevNodeId and its device are "PCI\NAME\1", its
    /// component is "PCI\NAME".
    /// @return its pnpDevNodeId.
    std::wstring PutNamed(const std::wstring &name, const std::vector<BYTE> &mac, DWORD characteristics = NCF_PHYSICAL,
                          bool boundToIp = true);

    /// Appends the records, as read by the code in the test.
    InTest ReadInto(TcpAdapterList &adapters);
    /// The same without anything that goes wrong.
    TcpAdapterList Records();
    InTest SetBindings(bool enable, const TcpAdapterList *adapters, bool useIpState);
    InTest UnbindUnsuitable();
    /// Install, and a failure if anything is left open.
    InstallOutcome InstallInBalance();
    /// Calls, without the sleeps of the thread that waits for the installation.
    [[nodiscard]] Texts CallsOfWork(const std::set<std::string> &functions);
    /// How often the function was called since the last call of the code in the test, or installation, began.
    [[nodiscard]] unsigned CountCalls(const std::string &function) {
        return static_cast<unsigned>(simulation().GetJournal().Count(function));
    }
    void Fail(const std::string &function, unsigned nth = 1, DWORD code = static_cast<DWORD>(E_FAIL)) {
        (void)simulation().GetFaults().FailNth(function, nth, code);
    }

private:
    InTest Watch(const std::function<ThreadInTest()> &call);
    [[nodiscard]] Texts LeftSince(const Simulator::BalanceSnapshot &before);
};

/// Without what they are indented by, and without those that tell of steps.
Texts WithoutSteps(const Texts &lines);
/// Those from the first on that begins so.
Texts FromFirst(const Texts &lines, const std::string &begin);
/// Those that have the text in them.
Texts With(const Texts &lines, const std::string &text);
/// The events of failed calls of the system as "text (code)", without the system's words.
Texts Failures(const InstallOutcome &installation);
