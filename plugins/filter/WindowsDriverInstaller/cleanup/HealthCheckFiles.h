// The two health-check files.
#pragma once

/// Removes the two files from the system folder if they exist. Logs an error for one that can't be removed. The module
/// never reads or writes them.
void RemoveHealthCheckFiles();
