// What a script has planned or switched on and what never came about, most likely because a name is misspelt.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

/// Functions of one thread.
class UnusedPlans {
public:
    enum class Kind { Fault, DriverFault, NetworkRule, Trace };
    /// Yields what is to be told of the plan by now; nothing if it has come about.
    using Complaint = std::function<std::string()>;

    void Add(Kind kind, Complaint complaint) { m_open.emplace_back(kind, std::move(complaint)); }
    /// The plans of the kind end; those that have come to nothing are noted.
    void Settle(Kind kind);
    /// All plans end. @return what is to be told of them, in the order in which they ended.
    std::vector<std::string> SettleAll();

private:
    std::vector<std::pair<Kind, Complaint>> m_open;
    std::vector<std::string> m_noted;
};
