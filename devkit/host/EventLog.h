// Does what the agent would do with traces, events and notifications: prints and keeps them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "DriverRuns.h"
#include "HealthHistory.h"
#include "vta_core_control.h"

/// An agent event or a notification. All texts are UTF-8.
struct HostEvent {
    enum class Kind { Event, UserNotification, RebootNotification };
    Kind kind;
    double time;  ///< Seconds since 1970, when it came.
    int number;   ///< The event's number; severity of a user notification; reason of a reboot notification.
    int logId;    ///< The log entry's number for an event that was logged, else 0.
    std::string format;
    std::string text;
    std::string detail;
};

/// Lower case, as in scripts and the events file.
const char *KindName(HostEvent::Kind kind);

/// Prints to standard error and keeps all events; those that belong in the agent's log have a line there, too. Any
/// thread.
class EventLog : public VtaCore::Control::Observer {
public:
    /// @param print  also print what happens.
    void SetPrinting(bool print) { m_print = print; }
    /// @param history  receives events and notifications; outlives the log. Set it before the first one.
    void SetHistory(HealthHistory *history) { m_history = history; }

    /// @param runs  receives the steps of drivers; outlives the log. Set it before the first one.
    void SetRuns(DriverRuns *runs) { m_runs = runs; }

    void OnTrace(const VtaCore::Control::TraceLine &trace) override;
    void OnEvent(const VtaCore::Control::Event &event) override;
    void OnNotification(const VtaCore::Control::Notification &notification) override;

    std::vector<HostEvent> All() const;
    /// Those that no earlier call has returned.
    std::vector<HostEvent> TakeNew();

    /// All events as a JSON array.
    std::string AsJson() const;

private:
    void Keep(HostEvent event);

    bool m_print = true;
    HealthHistory *m_history = nullptr;
    DriverRuns *m_runs = nullptr;
    mutable std::mutex m_lock;
    std::vector<HostEvent> m_events;
    std::size_t m_taken = 0;
};
