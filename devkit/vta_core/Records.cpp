#include "Records.h"

#include <deque>
#include <iterator>
#include <mutex>

namespace VtaCore {
namespace {

/// A list that several threads add to, bounded by Control::kMaxRecords.
template <typename Record>
class RecordList {
public:
    void Add(const Record &record) {
        const std::lock_guard lock(m_mutex);
        if (m_records.size() >= Control::kMaxRecords)
            m_records.pop_front();
        m_records.push_back(record);
    }

    std::vector<Record> Take() {
        const std::lock_guard lock(m_mutex);
        std::vector<Record> taken(std::make_move_iterator(m_records.begin()), std::make_move_iterator(m_records.end()));
        m_records.clear();
        return taken;
    }

private:
    std::mutex m_mutex;
    std::deque<Record> m_records;
};

RecordList<Control::TraceLine> g_traces;
RecordList<Control::Event> g_events;
RecordList<Control::Notification> g_notifications;

// Held while a record is added and reported, so that the observer sees the order of the list.
std::recursive_mutex g_observerMutex;
Control::Observer *g_observer = nullptr;

template <typename Record>
void AddAndTell(RecordList<Record> &list, const Record &record, void (Control::Observer::*tell)(const Record &)) {
    const std::lock_guard lock(g_observerMutex);
    list.Add(record);
    if (g_observer != nullptr)
        (g_observer->*tell)(record);
}

}  // namespace

void Records::Add(const Control::TraceLine &line) {
    AddAndTell(g_traces, line, &Control::Observer::OnTrace);
}

void Records::Add(const Control::Event &event) {
    AddAndTell(g_events, event, &Control::Observer::OnEvent);
}

void Records::Add(const Control::Notification &notification) {
    AddAndTell(g_notifications, notification, &Control::Observer::OnNotification);
}

void Control::SetObserver(Observer *observer) {
    const std::lock_guard lock(g_observerMutex);
    g_observer = observer;
}

std::vector<Control::TraceLine> Control::TakeTraces() {
    return g_traces.Take();
}

std::vector<Control::Event> Control::TakeEvents() {
    return g_events.Take();
}

std::vector<Control::Notification> Control::TakeNotifications() {
    return g_notifications.Take();
}

}  // namespace VtaCore
