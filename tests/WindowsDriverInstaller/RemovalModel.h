// A second description of what the removal of the drivers must do: step by step, on a simplified machine, with at most
// one failing call of the platform. It shares nothing with the product.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// The n-th call of a function, n from 1, fails with the code, or returns it. 0: no call.
struct Fault {
    std::string function;
    unsigned nth = 0;
    std::uint32_t code = 0;
};

struct ModelInf {
    std::string name;
    std::string driver;  ///< Its owner; empty: another product.
    bool inUse = false;  ///< It can't be deleted.
    bool isGone = false;
};

struct ModelKey {
    std::string name;
    std::vector<ModelKey> subkeys;
};

struct ModelMachine {
    bool hasService = false;
    bool infRemovesService = true;
    bool hasFilter = false;
    bool hasMiniport = false;  ///< An orphaned device, and the component cannot be removed.
    bool hasUninstallOemInf = true;
    bool hasHealthFiles = true;
    bool isLocked = false;  ///< The network configuration's lock is held by this process.
    std::vector<ModelInf> infs;
    std::vector<ModelKey> miniportKey;  ///< One or none.
    bool keyIsProtected = false;
    bool administratorsOwnKey = false;
    // Each with a trailing backslash.
    std::string infFolder;
    std::string catalogFolder;
    std::string wfpFolder;
};

/// The outcome of a removal. Addresses appear as "there" and "null", the system's texts as "...".
struct Expectation {
    static constexpr std::uint32_t kNoStep = 0xFFFFFFFF;

    bool result = false;
    std::uint32_t failedStep = kNoStep;
    bool rebootRequired = false;
    std::vector<std::string> calls;    ///< Of the platform, by name, except waits, the time and LocalFree.
    std::vector<std::string> log;      ///< The caller's lines, then the worker's: "E ", "W " or "  " and the line.
    std::vector<std::string> events;   ///< "3005 what failed (code)"
    std::vector<std::string> notices;  ///< "severity text"
    std::map<std::string, int> left;   ///< What is not released, by its kind in the balance.
    ModelMachine machine;              ///< Afterwards.
    bool isHit = false;                ///< Whether the fault was met.
};

/// @param ownThread  as a script runs it; otherwise on the calling thread, without a watcher.
Expectation ExpectRemoval(const ModelMachine &machine, const Fault &fault, bool ownThread);
