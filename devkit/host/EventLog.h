// What the agent would do with traces, events and notifications: here they are printed and kept.
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
    int number;   ///< Of the event; severity of a user notification; reason of a reboot notification.
    int logId;    ///< Of an event that was logged, else 0.
    std::string format;
    std::string text;
    std::string detail;
};

/// Lower case, as scripts and the events file have it.
const char *KindName(HostEvent::Kind kind);

/// Prints to the standard error output and keeps all events; those that belong in the agent's log have a line there,
/// too. Any thread.
class EventLog : public VtaCore::Control::Observer {
public:
    /// @param print  also print what happens.
    void SetPrinting(bool print) { m_print = print; }
    /// @param history  is told of events and notifications; outlives the log. Before anything happens.
    void SetHistory(HealthHistory *history) { m_history = history; }

    /// @param runs  is told of what concerns them; outlives the log. Before anything happens.
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
