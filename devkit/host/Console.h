// The standard error output: whole lines, and on a terminal one line below them that changes in place.
#pragma once

#include <cstddef>
#include <string>

/// Prints a line. Any thread; one that is killed within this delays the others' lines for a moment at most.
void PrintLine(const std::string &line);

/// Prints a line behind the time of day at which it was due.
/// @param time  seconds since 1970.
void PrintLineOf(double time, const std::string &line);

/// Shows the text below the lines, in place of the one before; an empty one leaves nothing there. For terminals.
void ShowStatus(const std::string &text);

/// Whether the standard error output is a terminal, and how wide it is.
bool IsTerminal();
std::size_t TerminalWidth();
