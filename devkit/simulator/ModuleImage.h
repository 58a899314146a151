// Reads the PE headers of a loaded module: size, flags, exports, symbol file, delay-loaded libraries.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <windows.h>

namespace Simulator {

/// Size of the mapped image in bytes.
[[nodiscard]] std::size_t ImageSize(HMODULE module);
/// Its file name, without the folder.
[[nodiscard]] std::string BaseName(HMODULE module);

/// Whether the address lies within the mapped image.
[[nodiscard]] bool ImageContains(HMODULE module, const void *address);
/// The IMAGE_DLLCHARACTERISTICS_* flags.
[[nodiscard]] WORD DllCharacteristics(HMODULE module);

struct Export {
    std::string name;  ///< Empty for a function that has only an ordinal.
    WORD ordinal = 0;
    DWORD rva = 0;
    std::string forwardedTo;  ///< "OTHER.function", or empty.
};
/// In the order of the ordinals; a function with two names occurs twice. Empty without an export table.
[[nodiscard]] std::vector<Export> Exports(HMODULE module);
/// The names among them, sorted.
[[nodiscard]] std::vector<std::string> ExportNames(HMODULE module);

/// The PDB file that the image names; empty if there is none.
[[nodiscard]] std::string SymbolFile(HMODULE module);

/// The records of the delay-loaded libraries.
[[nodiscard]] std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> DelayLoadRecords(HMODULE module);
/// Their names, as written there.
[[nodiscard]] std::vector<std::string> DelayLoadedLibraries(HMODULE module);

/// The header's entry (IMAGE_DIRECTORY_ENTRY_*); null if the module has none.
[[nodiscard]] const IMAGE_DATA_DIRECTORY *FindDirectory(HMODULE module, unsigned index);

template <class T>
[[nodiscard]] T *AtRva(HMODULE module, std::size_t rva) {
    return reinterpret_cast<T *>(reinterpret_cast<char *>(module) + rva);
}

}  // namespace Simulator
