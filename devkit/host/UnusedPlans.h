// What a script has planned or switched on and what never came about, most likely because a name is misspelt.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// Functions of one thread.
class UnusedPlans {
public:
    enum class Kind { Fault, DriverFault, NetworkRule, Trace };
    /// Yields what is to be told of the plan by now; nothing if it has come about.
    using Complaint = std::function<std::string()>;

    /// @param name  for Settle.
    void Add(Kind kind, Complaint complaint, std::string name = {}) {
        m_open.push_back({kind, std::move(name), std::move(complaint)});
    }
    /// The plans of the kind end, or only those with the name; those that have come to nothing are noted.
    void Settle(Kind kind, std::optional<std::string_view> name = {});
    /// All plans end. @return what is to be told of them, in the order in which they ended.
    std::vector<std::string> SettleAll();

private:
    struct Plan {
        Kind kind;
        std::string name;
        Complaint complaint;
    };

    std::vector<Plan> m_open;
    std::vector<std::string> m_noted;
};
