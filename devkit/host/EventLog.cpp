#include "EventLog.h"

#include <cmath>
#include <utility>

#include <wx/log.h>

#include "Console.h"
#include "Json.h"
#include "Text.h"
#include "WallClock.h"

using VtaCore::Control::Notification;

namespace {

std::string BaseName(const std::string &path) {
    const std::size_t separator = path.find_last_of("/\\");
    return separator == std::string::npos ? path : path.substr(separator + 1);
}

std::string Padded(std::string text, std::size_t width) {
    if (text.size() < width)
        text.resize(width, ' ');
    return text;
}

JsonPtr EventAsJson(const HostEvent &event) {
    JsonPtr object(cJSON_CreateObject());
    if (event.kind == HostEvent::Kind::Event) {
        cJSON_AddStringToObject(object.get(), "format", event.format.c_str());
        cJSON_AddNumberToObject(object.get(), "log_id", event.logId);
    } else {
        cJSON_AddStringToObject(object.get(), "detail", event.detail.c_str());
    }
    cJSON_AddStringToObject(object.get(), "kind", KindName(event.kind));
    cJSON_AddNumberToObject(object.get(), "number", event.number);
    cJSON_AddStringToObject(object.get(), "text", event.text.c_str());
    cJSON_AddNumberToObject(object.get(), "time", std::round(event.time * 1000) / 1000);
    return object;
}

/// The agent's own log names the event; the whole text is the event's.
void LogEvent(int number, const std::string &text) {
    const std::size_t end = text.find('\n');
    const std::string line = "event " + std::to_string(number) + ": " + text.substr(0, end);
    wxLogError("%s", wxString::FromUTF8(line + (end == text.npos ? "" : " ...")));
}

}  // namespace

const char *KindName(HostEvent::Kind kind) {
    switch (kind) {
        case HostEvent::Kind::UserNotification:
            return "user";
        case HostEvent::Kind::RebootNotification:
            return "reboot";
        case HostEvent::Kind::Event:
            break;
    }
    return "event";
}

void EventLog::OnTrace(const VtaCore::Control::TraceLine &trace) {
    if (!m_print)
        return;
    PrintLineOf(trace.time, "trace  " + Padded(ToUtf8(trace.component), 17) + " " + trace.function + ": " +
                                ToUtf8(trace.message) + " (" + BaseName(trace.file) + ":" + std::to_string(trace.line) +
                                ")");
}

void EventLog::OnEvent(const VtaCore::Control::Event &event) {
    const std::string text = ToUtf8(event.text);
    if (m_runs != nullptr)
        m_runs->OnAgentEvent(event.number, text);
    const double now = WallClockSeconds();
    if (m_print)
        PrintLineOf(now, "event  " + std::to_string(event.number) + "  " + text);
    Keep({HostEvent::Kind::Event, now, event.number, event.logId, ToUtf8(event.format), text, {}});
    if (event.logId != 0)
        LogEvent(event.number, text);
}

void EventLog::OnNotification(const Notification &notification) {
    const bool reboot = notification.kind == Notification::Kind::Reboot;
    const HostEvent::Kind kind = reboot ? HostEvent::Kind::RebootNotification : HostEvent::Kind::UserNotification;
    const std::string text = ToUtf8(notification.text);
    const std::string detail = ToUtf8(notification.detail);
    if (reboot && m_runs != nullptr)
        m_runs->OnRebootNotification();
    const double now = WallClockSeconds();
    if (m_print)
        PrintLineOf(now, "notify " + std::string(KindName(kind)) + " " + std::to_string(notification.code) + "  " +
                             text + (detail.empty() ? "" : "  [" + detail + "]"));
    Keep({kind, now, notification.code, 0, {}, text, detail});
}

std::vector<HostEvent> EventLog::All() const {
    const std::lock_guard<std::mutex> guard(m_lock);
    return m_events;
}

std::vector<HostEvent> EventLog::TakeNew() {
    const std::lock_guard<std::mutex> guard(m_lock);
    std::vector<HostEvent> fresh(m_events.begin() + static_cast<std::ptrdiff_t>(m_taken), m_events.end());
    m_taken = m_events.size();
    return fresh;
}

std::string EventLog::AsJson() const {
    const JsonPtr array(cJSON_CreateArray());
    for (const HostEvent &event : All())
        cJSON_AddItemToArray(array.get(), EventAsJson(event).release());
    return PrintJson(array.get());
}

void EventLog::Keep(HostEvent event) {
    if (m_history != nullptr) {
        const bool isEvent = event.kind == HostEvent::Kind::Event;
        m_history->AddNote(isEvent ? HealthNote::Kind::Event : HealthNote::Kind::Notification, event.time,
                           "(" + std::to_string(event.number) + ") " + event.text);
    }
    const std::lock_guard<std::mutex> guard(m_lock);
    m_events.push_back(std::move(event));
}
