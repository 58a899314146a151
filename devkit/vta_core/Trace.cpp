// Trace lines, and the switches that enable them.
#include <atomic>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string_view>

#include <wx/time.h>

#include "Records.h"

namespace VtaCore {
namespace {

/// The switches: one for all components, and those of components that differ from it.
class Switches {
public:
    bool IsOn(std::wstring_view component) const {
        // Almost every call ends here: tracing is usually off.
        if (!m_any.load(std::memory_order_relaxed))
            return false;
        const std::shared_lock lock(m_mutex);
        const auto found = m_components.find(component);
        return found != m_components.end() ? found->second : m_all;
    }

    void Set(std::wstring_view component, bool on) {
        const std::lock_guard lock(m_mutex);
        if (component == L"*") {
            m_all = on;
            m_components.clear();
        } else {
            m_components.insert_or_assign(std::wstring(component), on);
        }
        bool any = m_all;
        for (const auto &[name, isOn] : m_components)
            any = any || isOn;
        m_any = any;
    }

private:
    mutable std::shared_mutex m_mutex;
    std::atomic<bool> m_any{false};
    bool m_all = false;
    std::map<std::wstring, bool, std::less<>> m_components;
};

Switches g_switches;

std::wstring_view View(const wxString &text) {
    return {text.wc_str(), text.length()};
}

}  // namespace

void Control::EnableTrace(const wxString &component, bool enabled) {
    g_switches.Set(View(component), enabled);
}

bool LogTraceIsEnabled(const wxString &component) {
    return g_switches.IsOn(View(component));
}

bool LogTraceIsEnabled(const wchar_t *component) {
    return g_switches.IsOn(component);
}

void LogTrace(const wxString &component, const char *file, int line, const char *function, const wxString &message) {
    if (!LogTraceIsEnabled(component))
        return;
    const double now = wxGetUTCTimeMillis().ToDouble() / 1000;
    Records::Add(Control::TraceLine{now, component, file != nullptr ? file : "", line,
                                    function != nullptr ? function : "", message});
}

}  // namespace VtaCore
