#include "UnusedPlans.h"

void UnusedPlans::Settle(Kind kind) {
    std::erase_if(m_open, [this, kind](const auto &plan) {
        if (plan.first != kind)
            return false;
        std::string text = plan.second();
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
