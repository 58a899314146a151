// The two health-check files.
#pragma once

/// Removes the two files from the system folder if they are there. One that stays is a line in the error log, and no
/// more. The module never reads or writes them.
void RemoveHealthCheckFiles();
