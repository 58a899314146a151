// What the removal of the drivers has to do, written down a second time: step by step, on a machine of a few facts,
// with at most one call of the platform failing. It shares nothing with the product.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

/// The n-th call of a function, n from 1, fails with the code, or answers with it. 0: no call.
struct Fault {
    std::string function;
    unsigned nth = 0;
    std::uint32_t code = 0;
};

struct ModelInf {
    std::string name;
    std::string driver;  ///< Whose it is; empty: somebody else's.
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
    bool hasMiniport = false;  ///< A device that is left, with a component that stays.
    bool hasUninstallOemInf = true;
    bool hasHealthFiles = true;
    bool isLocked = false;  ///< The network configuration, by this process.
    std::vector<ModelInf> infs;
    std::vector<ModelKey> miniportKey;  ///< One or none.
    bool keyIsProtected = false;
    bool administratorsOwnKey = false;
    // With a backslash behind each.
    std::string infFolder;
    std::string catalogFolder;
    std::string wfpFolder;
};

/// What comes of a removal. Addresses are told as "there" and "null", the system's texts as "...".
struct Expectation {
    static constexpr std::uint32_t kNoStep = 0xFFFFFFFF;

    bool result = false;
    std::uint32_t failedStep = kNoStep;
    bool rebootRequired = false;
    std::vector<std::string> calls;    ///< Of the platform, by name, but for waits, the time and LocalFree.
    std::vector<std::string> log;      ///< The caller's lines, then the worker's: "E ", "W " or "  " and the line.
    std::vector<std::string> events;   ///< "3005 what failed (code)"
    std::vector<std::string> notices;  ///< "severity text"
    std::map<std::string, int> left;   ///< What is not given back, by its kind in the balance.
    ModelMachine machine;              ///< Afterwards.
    bool isHit = false;                ///< Whether the fault was met.
};

/// @param ownThread  as a script has it; otherwise on the calling thread, without a watcher.
Expectation ExpectRemoval(const ModelMachine &machine, const Fault &fault, bool ownThread);
