// An independent description of what the firewall's two switches must do: on a simple machine, of whose calls one may
// fail.
#pragma once

#include <optional>
#include <string>
#include <utility>

#include <windows.h>

#include "FirewallFixture.h"

/// The machine before, and after.
struct SwitchWorld {
    DWORD osMajor = 10;
    Simulator::FirewallState firewall;
    bool hasKey = false;
    std::optional<StoredFlag> flag;
    std::optional<Simulator::Service> service;
};

/// The call that fails, counted from 1 over both operations.
struct SwitchFault {
    std::string function;
    unsigned nth = 0;
    DWORD code = 0;
};

class SwitchModel {
public:
    SwitchModel(SwitchWorld machine, SwitchFault failing) : world(std::move(machine)), fault(std::move(failing)) {}

    void TurnOff();
    void TurnOn();

    SwitchWorld world;
    SwitchFault fault;
    Lines log;
    LeftThings left;
    unsigned comEnds = 0;  ///< Calls of CoUninitialize.
    bool hit = false;

private:
    enum class Looked { Failed, Stopped, Runs };

    [[nodiscard]] bool Fails(const std::string &function);
    /// Closes what was opened, unless that fails.
    void Close(const std::string &function, const char *kind);
    void Say(const std::string &line) { log.push_back(line); }
    void SayCode(const std::string &line, DWORD code);
    bool FailsSaying(const std::string &function, const std::string &line);

    void FindVersion();
    [[nodiscard]] bool IsNew() const { return major >= 6; }
    bool BeginCom();
    void EndCom() { ++comEnds; }
    bool MakeObjects();
    bool ReadSwitches(DWORD &mask);
    bool WriteSwitches(DWORD mask, bool on);
    void Remember(DWORD mask);
    void Forget();
    bool QueryFlag(DWORD &type, DWORD &mask);

    Looked LookAtService(bool start);
    Looked PollService(bool start);
    bool StartService();
    bool StartDisabledService();
    bool CallStart(DWORD &error);
    bool CallChange(DWORD startType, DWORD &error);
    bool Query(DWORD &state);
    void CloseService();
    void StopService();
    void StopOpened();
    void SayService(const std::string &what, DWORD code);

    DWORD major = 0;
    bool versionKnown = false;
    unsigned calls = 0;
};
