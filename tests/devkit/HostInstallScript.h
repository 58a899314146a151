// Scripts that install the drivers on a machine of their own.
#pragma once

#include <string>
#include <vector>

#include "HostProcess.h"

/// Runs a script whose assertions are the test's. It may use these:
/// - refused(message, f, ...) expects f to raise an error,
/// - adapter(node) is an adapter's state, or nil, and bound(node) what is bound to it, as one text,
/// - ready(version) makes a machine with two adapters, E and W, on which that version can be installed,
/// - install() installs, and yields the agent's events by their numbers, and how often a reboot was asked for,
/// - remove() removes, and yields the result,
/// - last() is the latest of host.installations().
HostRun RunInstallScript(const std::string &script, const std::vector<std::wstring> &options = {L"--quiet"});
