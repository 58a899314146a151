// Scripts that install the drivers on a machine of their own.
#pragma once

#include <string>
#include <vector>

#include "HostProcess.h"

/// Runs a script whose assertions are the test's. It may use kScriptHelpers and these:
/// - adapter(node) is an adapter's state, or nil, and bound(node) what is bound to it, as one text,
/// - ready(version) makes a machine with two adapters, E and W, on which that version can be installed,
/// - install() installs, and returns the agent's events by number, and the count of reboot requests,
/// - remove() removes, and returns the result,
/// - last() is the latest of host.installations().
HostRun RunInstallScript(const std::string &script, const std::vector<std::wstring> &options = {L"--quiet"},
                         const std::vector<std::wstring> &clock = {L"--fast", L"4"});
