// Whose an INF file is that the system has copied under a name of its own: its content tells.
#pragma once

#include <cstddef>
#include <span>

/// Scans the file as text of 16 or of 8 bits, whichever the system takes it for. A file is a driver's that names it ten
/// times. A name counts if its first letter is lower case, whatever the case of the others, and if it begins before the
/// last 8 characters of the file.
/// @param file  the whole content, of any size and alignment; nothing outside of it is read.
/// @return L"qbimvta" or L"qbimwfp", the one that got there first; null if the file is neither's.
/// Any thread. Logs nothing.
const wchar_t *DriverNamedIn(std::span<const std::byte> file);

/// The scan of a text of 8 bits.
const wchar_t *DriverNamedIn8Bit(std::span<const std::byte> file);

/// The scan of a text of 16 bits, whose last 8 characters are its last 16 bytes, even if its size is odd.
const wchar_t *DriverNamedIn16Bit(std::span<const std::byte> file);
