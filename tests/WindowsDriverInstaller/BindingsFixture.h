// Adapters and the filter's bindings to them: direct calls of the installer thread's code, and installations, each with
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

/// The result of one direct call.
struct InTest {
    bool result = false;
    std::uint32_t failedStep = 0;
    Texts lines;   ///< Of the thread log, without indentation and without those about steps.
    Texts steps;   ///< Those about steps, except the first, which the constructor logs.
    Texts errors;  ///< Lines of level 1.
    Texts events;  ///< As "number text (code)".
    Texts left;    ///< The kinds of resources acquired and not released.
};

class BindingsFixture : public InstallFixture {
protected:
    BindingsFixture();

    /// Installs the filter and binds it to both adapters, without an installation by the product.
    void PutFilter();
    /// Adds an adapter that is connected and known to IP Helper; its pnpDevNodeId and its device are "PCI\NAME\1", its
    /// component is "PCI\NAME".
    /// @return its pnpDevNodeId.
    std::wstring PutNamed(const std::wstring &name, const std::vector<BYTE> &mac, DWORD characteristics = NCF_PHYSICAL,
                          bool boundToIp = true);

    /// Appends the records, as the code compiled into the test reads them.
    InTest ReadInto(TcpAdapterList &adapters);
    /// The same; nothing fails.
    TcpAdapterList Records();
    InTest SetBindings(bool enable, const TcpAdapterList *adapters, bool useIpState);
    InTest UnbindUnsuitable();
    /// Installs, and adds a failure if anything is left open.
    InstallOutcome InstallInBalance();
    /// The calls, without the sleeps of the thread that waits for the installation.
    [[nodiscard]] Texts CallsOfWork(const std::set<std::string> &functions);
    /// How often the function was called since the last direct call, or installation, began.
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

/// Without indentation and without those about steps.
Texts WithoutSteps(const Texts &lines);
/// Those from the first that begins with the text.
Texts FromFirst(const Texts &lines, const std::string &begin);
/// Those that contain the text.
Texts With(const Texts &lines, const std::string &text);
/// The events of failed system calls as "text (code)", without the system's error text.
Texts Failures(const InstallOutcome &installation);
