// Finds out from its content which driver an INF file belongs to: Windows copies INF files under names of its own.
#pragma once

#include <cstddef>
#include <span>

/// Scans the file as 16-bit or 8-bit text, whichever Windows takes it for. A file belongs to the driver that it names
/// ten times. A name counts if its first letter is lower case, whatever the case of the others, and if it begins before
/// the last 8 characters of the file.
/// @param file  the whole content, of any size and alignment; nothing outside of it is read.
/// @return L"qbimvta" or L"qbimwfp", the one that got there first; null if the file is neither's.
/// Any thread. Logs nothing.
const wchar_t *ScanInfForDriver(std::span<const std::byte> file);

/// Scans 8-bit text.
const wchar_t *ScanInfForDriver8Bit(std::span<const std::byte> file);

/// Scans 16-bit text. Its last 8 characters are its last 16 bytes, even if its size is odd.
const wchar_t *ScanInfForDriver16Bit(std::span<const std::byte> file);
