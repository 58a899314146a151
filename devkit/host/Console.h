// Standard error: complete lines, and on a terminal a status line below them that changes in place.
#pragma once

#include <cstddef>
#include <string>

/// Prints a line. Any thread; if one is killed within this, the others' lines are delayed for a moment at most.
void PrintLine(const std::string &line);

/// Prints a line after its time of day.
/// @param time  seconds since 1970.
void PrintLineOf(double time, const std::string &line);

/// Replaces the status line; an empty text clears it. For terminals.
void ShowStatus(const std::string &text);

/// Whether standard error is a terminal, and its width.
bool IsTerminal();
std::size_t TerminalWidth();
