// A second description, on plain data, of what an installation must do to the bindings of a machine's adapters, and how
// it must recover the network. It shares nothing with the product.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Bindings {

struct Adapter {
    std::string node;
    std::string componentId;
    std::string bindName;
    std::optional<std::string> displayName;
    bool isVirtual = false;
    bool isPhysical = true;
    unsigned deviceStatus = 0;
    std::string mac;  ///< Raw bytes; IP Helper reports the first 8.
    bool inIpHelper = true;
    std::string ip = "0.0.0.0";
    std::string gateway = "0.0.0.0";
    bool opens = true;
    std::optional<unsigned> media = 0;  ///< 0 connected, 1 disconnected; empty: the query fails.
};

/// Above the adapters of one node: bound, bound but disabled, or not bound.
struct NodeBindings {
    std::optional<bool> ip4, ip6, filter;

    bool operator==(const NodeBindings &) const = default;
};

struct Device {
    std::string instanceId;
    bool isPresent = true;
    bool changeFails = false;
    bool isDisabled = false;
    bool isDisabledInProfile = false;
};

/// What happens to an adapter, or to the lock, at some point of the installation.
struct Reaction {
    enum class When { Installed, Unbound, Bound, Disabled, Enabled, Slept };
    enum class What {
        GoesOffline,
        GoesOnline,
        TurnsSilent,  ///< Its device can no longer be opened.
        LosesAddress,
        LosesGateway,
        GoesBad,  ///< It has a device status.
        GetsWell,
        Vanishes,
        Appears,  ///< An adapter that is absent at first.
        LockedByAnother,
        LockedByNamesake,  ///< By another process with the same description.
        Unlocked,
    };
    When when = When::Installed;
    std::string of;    ///< Unbound, Bound: the node. Disabled, Enabled: the device's instance id.
    unsigned nth = 0;  ///< Slept: the n-th sleep of two seconds.
    What what = What::GoesOffline;
    std::string node;  ///< Which adapter.
};

/// The n-th call of a function fails.
struct Fault {
    std::string function;  ///< Empty for none.
    unsigned nth = 1;
    bool onceInstalled = false;  ///< Counted from the filter's installation on.
};

struct Machine {
    enum class Kind {
        Fresh,
        Upgrade,
        Reinstall,  ///< Of our version, but not running.
        Forced,     ///< Over a newer version.
    };
    enum class Answer { Success, Failure, Reboot };  ///< For each attempt to install the filter.
    enum class Loaded { Ours, None, Old, OldUntilUnbound };

    Kind kind = Kind::Fresh;
    unsigned osMajor = 10;
    unsigned osMinor = 0;
    bool isServer = false;
    bool hasIp4 = true;
    bool hasIp6 = true;
    std::vector<Adapter> adapters;
    std::vector<Adapter> later;  ///< Those that may appear.
    std::map<std::string, NodeBindings> bindings;
    std::vector<Device> devices;
    Answer answer = Answer::Success;
    Loaded loaded = Loaded::Ours;  ///< Which driver runs once the filter is installed.
    std::vector<Reaction> reactions;
    Fault fault;
};

/// The visible outcome.
struct Outcome {
    bool succeeded = false;
    bool rebootEvent = false;
    unsigned rebootNotices = 0;
    unsigned lockNotices = 0;
    unsigned applies = 0;
    std::map<std::string, NodeBindings> bindings;  ///< Of the adapters that are present.
    std::vector<std::string> changes;              ///< On devices, such as "disable 2 PCI\CARD\1", with the scope.
    std::set<std::string> disabled;                ///< Devices.
    bool isLocked = false;
    std::vector<std::string> failures;  ///< The calls that were reported.
    std::vector<std::string> log;       ///< Of the watchdog, without the steps.
};

struct Expectation {
    Outcome outcome;
    std::set<std::string> codePaths;  ///< Code paths that the machine exercised, such as "recovery 0".
};

Expectation Expect(const Machine &machine);

}  // namespace Bindings
