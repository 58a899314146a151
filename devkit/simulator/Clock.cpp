#include "Clock.h"

#include <algorithm>

#include "CallScope.h"
#include "Event.h"

namespace Simulator {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;
using std::chrono::seconds;

/// Between 1601 and 1970.
constexpr Interval kUnixEpoch = seconds(11'644'473'600);
/// A waiting thread polls the clock this often, since mode and time may change meanwhile.
constexpr DWORD kLongestSliceMs = 50;
constexpr DWORD kSteppedSliceMs = 1;
/// How long the system has been running when threads take turns.
constexpr Interval kFirstTick = std::chrono::hours(1);

std::int64_t CounterFrequency() {
    LARGE_INTEGER frequency{};
    QueryPerformanceFrequency(&frequency);
    return frequency.QuadPart;
}
const std::int64_t counterFrequency = CounterFrequency();

/// value * to / from without overflow.
std::int64_t Rescale(std::int64_t value, std::int64_t from, std::int64_t to) {
    return value / from * to + value % from * to / from;
}

Interval RealNow() {
    const InsideSimulator inside;
    LARGE_INTEGER counter{};
    QueryPerformanceCounter(&counter);
    return Interval(Rescale(counter.QuadPart, counterFrequency, Interval::period::den));
}

Interval RealWall() {
    const InsideSimulator inside;
    FILETIME time{};
    GetSystemTimeAsFileTime(&time);
    return Interval(static_cast<std::int64_t>(time.dwHighDateTime) << 32 | time.dwLowDateTime);
}

bool IsAlive(DWORD threadId) {
    const HANDLE thread = OpenThread(SYNCHRONIZE, FALSE, threadId);
    if (thread == nullptr)
        return false;
    const bool alive = WaitForSingleObject(thread, 0) == WAIT_TIMEOUT;
    CloseHandle(thread);
    return alive;
}

}  // namespace

Interval Clock::State::Now() const {
    return base + (factor == 0 ? Interval() : (RealNow() - realBase) * factor);
}

void Clock::State::Rebase() {
    base = Now();
    realBase = RealNow();
}

Clock::Clock() {
    const InsideSimulator inside;
    m_state.realBase = RealNow();
    m_state.base = m_state.realBase;
    m_state.wallOffset = RealWall() - m_state.base;
    m_state.tickOffset = milliseconds(GetTickCount64()) - m_state.base;
}

Clock::State Clock::Read() const {
    const LockGuard guard(m_lock);
    return m_state;
}

void Clock::RunFast(unsigned factor) {
    const LockGuard guard(m_lock);
    m_state.Rebase();
    m_state.factor = std::max(factor, 1U);
}

void Clock::Step(AutoAdvance autoAdvance) {
    const LockGuard guard(m_lock);
    m_state.Rebase();
    m_state.factor = 0;
    m_state.autoAdvance = autoAdvance;
}

void Clock::TakeTurns(std::int64_t unixSeconds) {
    {
        const LockGuard guard(m_lock);
        m_state = {.factor = 0, .base = kFirstTick};
    }
    SetWallClockUnix(unixSeconds);
    m_turns.Begin([this](Interval time) { AdvanceTo(time); });
}

void Clock::Advance(Interval by) {
    const LockGuard guard(m_lock);
    m_state.base += by;
}

void Clock::AdvanceTo(Interval time) {
    const LockGuard guard(m_lock);
    m_state.base += std::max(time - m_state.Now(), Interval());
}

void Clock::SetFollower(DWORD threadId) {
    m_follower = threadId;
}

bool Clock::AdvanceIfFollowerSleeps(Interval by) {
    const LockGuard guard(m_lock);
    if (m_follower != 0 && !m_followerSleeps)
        return false;
    m_state.base += by;
    return true;
}

void Clock::SetFollowerSleeps(bool sleeps) {
    const LockGuard guard(m_lock);
    m_followerSleeps = sleeps;
}

void Clock::SetWallClock(std::uint64_t fileTime) {
    const LockGuard guard(m_lock);
    m_state.wallOffset = Interval(static_cast<std::int64_t>(fileTime)) - m_state.Now();
}

void Clock::SetWallClockUnix(std::int64_t unixSeconds) {
    SetWallClock(static_cast<std::uint64_t>((seconds(unixSeconds) + kUnixEpoch).count()));
}

void Clock::SetTick(std::uint64_t ms) {
    const LockGuard guard(m_lock);
    m_state.tickOffset = milliseconds(ms) - m_state.Now();
}

std::uint64_t Clock::TickMs() const {
    const State state = Read();
    return static_cast<std::uint64_t>(duration_cast<milliseconds>(state.Now() + state.tickOffset).count());
}

std::uint64_t Clock::WallFileTime() const {
    const State state = Read();
    return static_cast<std::uint64_t>((state.Now() + state.wallOffset).count());
}

std::int64_t Clock::WallUnix() const {
    return duration_cast<seconds>(Interval(static_cast<std::int64_t>(WallFileTime())) - kUnixEpoch).count();
}

std::int64_t Clock::PerformanceCounter() const {
    return Rescale(Now().count(), Interval::period::den, counterFrequency);
}

void Clock::SleepFor(DWORD ms) {
    const InsideSimulator inside;
    Wait(ms, Purpose::Sleep, [](DWORD realMs) -> DWORD {
        ::Sleep(realMs);
        return WAIT_TIMEOUT;
    });
}

Clock::Slice Clock::SliceUntil(Interval deadline) const {
    const State state = Read();
    const Interval left = deadline - state.Now();
    if (left <= Interval() || state.ended)
        return {0, true};
    if (state.factor == 0)
        return {kSteppedSliceMs, false};
    const auto realMs = std::chrono::ceil<milliseconds>(left / state.factor).count();
    return {static_cast<DWORD>(std::clamp<std::int64_t>(realMs, 1, kLongestSliceMs)), false};
}

DWORD Clock::WaitUntil(Interval deadline, const std::function<DWORD(DWORD)> &real) const {
    for (;;) {
        const Slice slice = SliceUntil(deadline);
        const DWORD result = real(slice.realMs);
        if (result != WAIT_TIMEOUT || slice.last)
            return result;
    }
}

void Clock::FollowUntil(Interval deadline) {
    SetFollowerSleeps(true);
    for (DWORD waited = 0; waited < kFollowerMs && !SliceUntil(deadline).last; ++waited)
        ::Sleep(1);
    SetFollowerSleeps(false);
}

/// Also one without an end.
DWORD Clock::WaitInTurn(DWORD timeoutMs, Purpose purpose, const std::function<DWORD(DWORD)> &real) {
    DWORD result = WAIT_TIMEOUT;
    Turns::Probe isOver;
    if (purpose == Purpose::Wait)
        isOver = [&] { return (result = real(0)) != WAIT_TIMEOUT; };
    if (isOver != nullptr && isOver())
        return result;
    std::optional<Interval> until;
    if (timeoutMs != INFINITE)
        until = Now() + milliseconds(timeoutMs);
    (void)m_turns.Wait(until, isOver);
    return result;
}

void Clock::NoteLateness(Interval deadline) {
    const State state = Read();
    const Interval late = state.Now() - deadline;
    if (state.factor > 1 && late > kTooLate && m_tellLate != nullptr && !m_wasLate.exchange(true))
        m_tellLate(late);
}

DWORD Clock::Wait(DWORD timeoutMs, Purpose purpose, const std::function<DWORD(DWORD)> &real) {
    if (timeoutMs != 0 && m_turns.TakesPart()) {
        const InsideSimulator inside;
        return WaitInTurn(timeoutMs, purpose, real);
    }
    if (timeoutMs == 0 || timeoutMs == INFINITE)
        return real(timeoutMs);

    const InsideSimulator inside;
    const State state = Read();
    const Interval deadline = state.Now() + milliseconds(timeoutMs);
    if (purpose == Purpose::Sleep && state.factor == 0 && m_follower == GetCurrentThreadId()) {
        FollowUntil(deadline);
        return WAIT_TIMEOUT;
    }
    {
        const LockGuard guard(m_lock);
        m_waiting.insert(GetCurrentThreadId());
    }
    const AutoAdvance autoAdvance = state.factor == 0 ? state.autoAdvance : AutoAdvance::None;
    DWORD result = WAIT_TIMEOUT;
    if (autoAdvance == AutoAdvance::SleepsAndWaits && purpose == Purpose::Wait)
        result = real(kGraceMs);
    if (result == WAIT_TIMEOUT) {
        if (autoAdvance == AutoAdvance::SleepsAndWaits ||
            (autoAdvance == AutoAdvance::Sleeps && purpose == Purpose::Sleep))
            AdvanceTo(deadline);
        result = WaitUntil(deadline, real);
        if (result == WAIT_TIMEOUT)
            NoteLateness(deadline);
    }
    const LockGuard guard(m_lock);
    m_waiting.erase(m_waiting.find(GetCurrentThreadId()));
    return result;
}

void Clock::WaitFor(const Event &event) {
    if (m_turns.TakesPart())
        (void)m_turns.Wait(std::nullopt, [&event] { return event.IsSet(); }, &event.Flag());
    else
        event.Wait(INFINITE);
}

std::size_t Clock::Waiting() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return static_cast<std::size_t>(std::count_if(m_waiting.begin(), m_waiting.end(), IsAlive));
}

bool Clock::AwaitWaiting(std::size_t threads, DWORD realTimeoutMs) const {
    const InsideSimulator inside;
    for (const ULONGLONG begin = GetTickCount64(); Waiting() < threads; ::Sleep(1)) {
        if (GetTickCount64() - begin > realTimeoutMs)
            return false;
    }
    return true;
}

void Clock::End() {
    {
        const LockGuard guard(m_lock);
        m_state.ended = true;
    }
    m_turns.End();
}

}  // namespace Simulator
