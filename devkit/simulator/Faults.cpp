#include "Faults.h"

#include <algorithm>
#include <utility>

#include "CallScope.h"
#include "Clock.h"

namespace Simulator {

std::string FaultPlan::HitFunction() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_hitFunction;
}

bool FaultPlan::IsForThisThread() {
    if (m_thread == kAnyThread)
        return true;
    const DWORD id = GetCurrentThreadId();
    const auto known = std::find(m_threads.begin(), m_threads.end(), id);
    const auto number = static_cast<unsigned>(known - m_threads.begin());
    if (known == m_threads.end())
        m_threads.push_back(id);
    return number == m_thread;
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

void FaultPlan::BeginHanging() {
    const InsideSimulator inside;
    m_hangingThread = GetCurrentThreadId();
    {
        const LockGuard guard(m_lock);
        m_hung.emplace_back(OpenThread(THREAD_TERMINATE | SYNCHRONIZE, FALSE, GetCurrentThreadId()));
    }
    Meet();
}

void FaultPlan::KillHung() {
    const InsideSimulator inside;
    if (m_released.IsSet())
        return;
    const LockGuard guard(m_lock);
    for (const UniqueHandle &thread : m_hung)
        KillThread(thread.get());
    m_hung.clear();
}

void FaultPlan::Hang() {
    BeginHanging();
    m_released.Wait(INFINITE);
}

void FaultPlan::Hang(Clock &clock) {
    BeginHanging();
    clock.WaitFor(m_released);
}

void FaultPlan::Release() {
    const InsideSimulator inside;
    m_released.Set();
}

FaultPlanHandle Faults::Add(FaultPlan::Kind kind, const std::set<std::string> &functions, unsigned nth, DWORD value,
                            unsigned thread) {
    const InsideSimulator inside;
    auto plan = std::make_shared<FaultPlan>();
    plan->m_kind = kind;
    plan->m_functions = functions;
    plan->m_nth = nth;
    plan->m_value = value;
    plan->m_thread = thread;
    if (thread != kAnyThread)
        plan->m_threads.push_back(GetCurrentThreadId());
    const LockGuard guard(m_lock);
    m_plans.push_back(plan);
    return plan;
}

FaultPlanHandle Faults::FailNth(const std::string &function, unsigned nth, DWORD code, unsigned thread) {
    return Add(FaultPlan::Kind::Fail, {function}, nth, code, thread);
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

FaultPlanHandle Faults::HangNth(const std::string &function, unsigned nth, unsigned thread) {
    return Add(FaultPlan::Kind::Hang, {function}, nth, 0, thread);
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

void Faults::KillHung() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (const FaultPlanHandle &plan : m_plans)
        plan->KillHung();
}

void Faults::Clear() {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    for (const FaultPlanHandle &plan : m_plans)
        plan->Release();
    m_plans.clear();
}

bool Faults::Hangs(DWORD thread) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return std::any_of(m_plans.begin(), m_plans.end(), [thread](const FaultPlanHandle &plan) {
        return plan->m_hangingThread == thread && !plan->m_released.IsSet();
    });
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
        const bool isForThread = plan->IsForThisThread();
        const bool concerned = plan->m_functions.empty() ? canFail : plan->m_functions.count(function) != 0;
        const bool possible = canFail || plan->m_kind != FaultPlan::Kind::Fail;
        if (!isForThread || !concerned || !possible || plan->m_released.IsSet())
            continue;
        ++plan->m_seen;
        if (plan->m_nth == 0 || plan->m_seen == plan->m_nth)
            plan->Apply(function, verdict);
    }
    return verdict;
}

}  // namespace Simulator
