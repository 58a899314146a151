// A call in a separate thread. Not std::async: its thread-local variables are libstdc++'s, which clang's code can't
// access.
#pragma once

#include <thread>
#include <type_traits>
#include <utility>

#include "Event.h"

/// The destructor waits for the call.
template <class Result>
class CallInThread {
public:
    template <class Call>
    explicit CallInThread(Call call)
        : m_thread([this, call = std::move(call)] {
              m_result = call();
              m_ended.Set();
          }) {}

    /// @param milliseconds  of real time.
    [[nodiscard]] bool EndsWithin(DWORD milliseconds) const { return m_ended.Wait(milliseconds); }
    /// Waits for the end of the call.
    [[nodiscard]] Result Get() const {
        m_ended.Wait(INFINITE);
        return m_result;
    }

private:
    Simulator::Event m_ended;
    Result m_result{};
    std::jthread m_thread;
};

template <class Call>
CallInThread(Call) -> CallInThread<std::invoke_result_t<Call>>;
