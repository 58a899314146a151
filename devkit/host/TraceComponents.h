// The components that the module traces under.
#pragma once

#include <string>
#include <string_view>
#include <vector>

std::vector<std::string> ModuleTraceComponents();
bool IsModuleTraceComponent(std::string_view component);
/// It is none of them, but almost one. Other names are those of scripts.
bool IsMisspeltTraceComponent(std::string_view component);
