// An installation or a removal of the drivers, and what became of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "LogLine.h"

/// Times are seconds since 1970.
struct DriverStep {
    std::string name;
    std::size_t depth = 0;  ///< How many steps are around it.
    unsigned limit = 0;     ///< Seconds; 0 if unknown.
    double begin = 0;
    std::optional<double> end{};
    bool killed = false;
    bool failed = false;  ///< A system call failed in it.
};

/// A call of the system that failed, as event 3005 tells.
struct DriverFailure {
    std::string call{};
    std::uint32_t code = 0;
    std::string step{};      ///< In which the worker was; "ThreadRunning" between the others.
    bool ofOrphans = false;  ///< While orphaned devices were removed.
};

/// Of the machine, when the module's function has returned. Without a simulated machine only the driver is known.
struct DriverState {
    struct Adapter {
        std::string node;
        std::string name;
        bool isBound = false;  ///< The filter is bound to it.
    };
    std::optional<std::string> driver{};   ///< The version of the driver that runs.
    bool hasMachine = false;               ///< There is a simulated machine, so the following is known.
    bool hasFilter = false;                ///< The filter is installed as a network component.
    std::optional<std::string> callout{};  ///< The state of the callout's service, if there is one.
    std::optional<std::string> lock{};     ///< Who holds the write lock of the network configuration.
    bool hasLeftToBoot = false;            ///< The run has left files to the next boot; earlier ones do not count.
    std::vector<Adapter> adapters{};
};

struct DriverRun {
    enum class Kind { Installation, Removal };
    Kind kind = Kind::Installation;
    double begin = 0;
    std::optional<double> end{};
    std::vector<DriverStep> steps{};  ///< In the order in which they began.
    bool succeeded = false;           ///< Of an installation: its event says so.
    std::string failedStep{};         ///< Of a failed installation: the step that its event names.
    std::string from{};               ///< The version before an installation, as its events have it; empty: not told.
    std::string to{};                 ///< And the version that is to be installed.
    bool isUpgrade = false;           ///< Its event says so.
    bool rebootAsked = false;         ///< The user or the agent was told.
    std::optional<double> killed{};   ///< When its worker was killed, or was to be.
    std::vector<DriverFailure> failures{};  ///< Of the worker.
    std::vector<LoggedLine> log{};          ///< Of all threads that work for it.
    std::string stack{};                    ///< Of a thread that hung; empty without verbose logging.
    std::optional<bool> result{};           ///< What the module's function returned.
    bool isAtWork = false;                  ///< Its thread still ran then.
    bool outlivesKill = false;              ///< Its worker was to be killed, and still ran then.
    std::optional<DriverState> state{};     ///< Then.
};
