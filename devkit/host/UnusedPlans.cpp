#include "UnusedPlans.h"

void UnusedPlans::Settle(Kind kind, std::optional<std::string_view> name) {
    std::erase_if(m_open, [this, kind, name](const Plan &plan) {
        if (plan.kind != kind || plan.name != name.value_or(plan.name))
            return false;
        std::string text = plan.complaint();
        if (!text.empty())
            m_noted.push_back(std::move(text));
        return true;
    });
}

std::vector<std::string> UnusedPlans::SettleAll() {
    for (const Kind kind : {Kind::Fault, Kind::DriverFault, Kind::NetworkRule, Kind::Trace})
        Settle(kind);
    return std::exchange(m_noted, {});
}
