#include "TraceComponents.h"

#include <algorithm>

#include "Nearest.h"

std::vector<std::string> ModuleTraceComponents() {
    return {"FC-WFW",         "NDIS", "SysHealth.conf", "SysHealth.eng", "SysHealth.metr",
            "SysHealth.scan", "VTI",  "diagnostics",    "filter"};
}

bool IsModuleTraceComponent(std::string_view component) {
    const std::vector<std::string> known = ModuleTraceComponents();
    return std::find(known.begin(), known.end(), component) != known.end();
}

bool IsMisspeltTraceComponent(std::string_view component) {
    return !IsModuleTraceComponent(component) && !NearestNames(component, ModuleTraceComponents()).empty();
}
