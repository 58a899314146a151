#include "ModuleImage.h"

#include <algorithm>
#include <tuple>

namespace Simulator {

namespace {

const IMAGE_NT_HEADERS &Headers(HMODULE module) {
    return *AtRva<const IMAGE_NT_HEADERS>(module,
                                          static_cast<std::size_t>(AtRva<const IMAGE_DOS_HEADER>(module, 0)->e_lfanew));
}

}  // namespace

std::size_t ImageSize(HMODULE module) {
    return Headers(module).OptionalHeader.SizeOfImage;
}

std::string BaseName(HMODULE module) {
    char path[MAX_PATH] = "";
    const std::string text(path, GetModuleFileNameA(module, path, MAX_PATH));
    return text.substr(text.find_last_of('\\') + 1);
}

bool ImageContains(HMODULE module, const void *address) {
    const auto base = reinterpret_cast<std::uintptr_t>(module);
    return reinterpret_cast<std::uintptr_t>(address) - base < ImageSize(module);
}

WORD DllCharacteristics(HMODULE module) {
    return Headers(module).OptionalHeader.DllCharacteristics;
}

const IMAGE_DATA_DIRECTORY *FindDirectory(HMODULE module, unsigned index) {
    const IMAGE_OPTIONAL_HEADER &header = Headers(module).OptionalHeader;
    if (index >= header.NumberOfRvaAndSizes || header.DataDirectory[index].VirtualAddress == 0)
        return nullptr;
    return &header.DataDirectory[index];
}

std::vector<Export> Exports(HMODULE module) {
    const IMAGE_DATA_DIRECTORY *directory = FindDirectory(module, IMAGE_DIRECTORY_ENTRY_EXPORT);
    if (directory == nullptr)
        return {};
    const auto *table = AtRva<const IMAGE_EXPORT_DIRECTORY>(module, directory->VirtualAddress);
    const auto *functions = AtRva<const DWORD>(module, table->AddressOfFunctions);
    const auto *names = AtRva<const DWORD>(module, table->AddressOfNames);
    const auto *indexes = AtRva<const WORD>(module, table->AddressOfNameOrdinals);

    std::vector<Export> exports;
    std::vector<bool> named(table->NumberOfFunctions);
    const auto add = [&](std::string name, DWORD index) {
        Export entry{std::move(name), static_cast<WORD>(table->Base + index), functions[index], {}};
        if (entry.rva - directory->VirtualAddress < directory->Size)
            entry.forwardedTo = AtRva<const char>(module, entry.rva);
        exports.push_back(std::move(entry));
    };
    for (DWORD i = 0; i < table->NumberOfNames; ++i) {
        add(AtRva<const char>(module, names[i]), indexes[i]);
        named[indexes[i]] = true;
    }
    for (DWORD i = 0; i < table->NumberOfFunctions; ++i) {
        if (!named[i] && functions[i] != 0)
            add({}, i);
    }
    std::sort(exports.begin(), exports.end(), [](const Export &a, const Export &b) {
        return std::tie(a.ordinal, a.name) < std::tie(b.ordinal, b.name);
    });
    return exports;
}

std::vector<std::string> ExportNames(HMODULE module) {
    std::vector<std::string> names;
    for (Export &entry : Exports(module)) {
        if (!entry.name.empty())
            names.push_back(std::move(entry.name));
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::string SymbolFile(HMODULE module) {
    const IMAGE_DATA_DIRECTORY *directory = FindDirectory(module, IMAGE_DIRECTORY_ENTRY_DEBUG);
    if (directory == nullptr)
        return {};
    constexpr std::size_t nameOffset = 24;  // after "RSDS", a GUID and an age
    const auto *entry = AtRva<const IMAGE_DEBUG_DIRECTORY>(module, directory->VirtualAddress);
    for (const auto *end = entry + directory->Size / sizeof *entry; entry != end; ++entry) {
        if (entry->Type == IMAGE_DEBUG_TYPE_CODEVIEW)
            return AtRva<const char>(module, entry->AddressOfRawData + nameOffset);
    }
    return {};
}

std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> DelayLoadRecords(HMODULE module) {
    const IMAGE_DATA_DIRECTORY *directory = FindDirectory(module, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT);
    if (directory == nullptr)
        return {};
    std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> records;
    const auto *record = AtRva<const IMAGE_DELAYLOAD_DESCRIPTOR>(module, directory->VirtualAddress);
    for (; record->DllNameRVA != 0; ++record)
        records.push_back(record);
    return records;
}

std::vector<std::string> DelayLoadedLibraries(HMODULE module) {
    std::vector<std::string> names;
    for (const IMAGE_DELAYLOAD_DESCRIPTOR *record : DelayLoadRecords(module))
        names.emplace_back(AtRva<const char>(module, record->DllNameRVA));
    return names;
}

}  // namespace Simulator
