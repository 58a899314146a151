#include "Faults.h"

#include <utility>

#include "CallScope.h"

namespace Simulator {

std::string FaultPlan::HitFunction() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_hitFunction;
}

void FaultPlan::Apply(const std::string &function, Verdict &verdict) {
    {
        const LockGuard guard(m_lock);
        if (m_hitFunction.empty())
            m_hitFunction = function;
    }
    if (m_kind == Kind::Hang) {
        verdict.hangs.push_back(shared_from_this());
        return;
    }
    if (m_kind == Kind::Delay)
        verdict.delayMs += m_value;
    else if (!std::exchange(verdict.fails, true))
        verdict.code = m_value;
    Meet();
}

void FaultPlan::Meet() {
    ++m_hits;
    m_hit.Set();
}

void FaultPlan::Hang() {
    Meet();
    m_released.Wait(INFINITE);
}

void FaultPlan::Release() {
    const InsideSimulator inside;
    m_released.Set();
}

FaultPlanHandle Faults::Add(FaultPlan::Kind kind, const std::set<std::string> &functions, unsigned nth, DWORD value) {
    const InsideSimulator inside;
    auto plan = std::make_shared<FaultPlan>();
    plan->m_kind = kind;
    plan->m_functions = functions;
    plan->m_nth = nth;
    plan->m_value = value;
    const LockGuard guard(m_lock);
    m_plans.push_back(plan);
    return plan;
}

FaultPlanHandle Faults::FailNth(const std::string &function, unsigned nth, DWORD code) {
    return Add(FaultPlan::Kind::Fail, {function}, nth, code);
}

FaultPlanHandle Faults::FailEvery(const std::string &function, DWORD code) {
    return Add(FaultPlan::Kind::Fail, {function}, 0, code);
}

FaultPlanHandle Faults::FailNthOf(const std::set<std::string> &functions, unsigned nth, DWORD code) {
    return Add(FaultPlan::Kind::Fail, functions, nth, code);
}

FaultPlanHandle Faults::FailNthOfAny(unsigned nth, DWORD code) {
    return Add(FaultPlan::Kind::Fail, {}, nth, code);
}

FaultPlanHandle Faults::HangNth(const std::string &function, unsigned nth) {
    return Add(FaultPlan::Kind::Hang, {function}, nth, 0);
}

FaultPlanHandle Faults::HangEvery(const std::string &function) {
    return Add(FaultPlan::Kind::Hang, {function}, 0, 0);
}

FaultPlanHandle Faults::DelayNth(const std::string &function, unsigned nth, DWORD delayMs) {
    return Add(FaultPlan::Kind::Delay, {function}, nth, delayMs);
}

FaultPlanHandle Faults::DelayEvery(const std::string &function, DWORD delayMs) {
    return Add(FaultPlan::Kind::Delay, {function}, 0, delayMs);
}

void Faults::ReleaseHung() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (const FaultPlanHandle &plan : m_plans) {
        if (plan->m_kind == FaultPlan::Kind::Hang)
            plan->Release();
    }
}

void Faults::Clear() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (const FaultPlanHandle &plan : m_plans)
        plan->Release();
    m_plans.clear();
}

unsigned Faults::Calls(const std::string &function) const {
    const LockGuard guard(m_lock);
    const auto found = m_calls.find(function);
    return found == m_calls.end() ? 0 : found->second;
}

unsigned Faults::FailableCalls() const {
    const LockGuard guard(m_lock);
    return m_failableCalls;
}

Verdict Faults::Ask(const std::string &function, bool canFail) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    Verdict verdict;
    ++m_calls[function];
    m_failableCalls += canFail ? 1 : 0;
    for (const FaultPlanHandle &plan : m_plans) {
        const bool concerned = plan->m_functions.empty() ? canFail : plan->m_functions.count(function) != 0;
        const bool possible = canFail || plan->m_kind != FaultPlan::Kind::Fail;
        if (!concerned || !possible || plan->m_released.IsSet())
            continue;
        ++plan->m_seen;
        if (plan->m_nth == 0 || plan->m_seen == plan->m_nth)
            plan->Apply(function, verdict);
    }
    return verdict;
}

}  // namespace Simulator
