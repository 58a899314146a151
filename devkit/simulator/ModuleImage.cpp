#include "ModuleImage.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Simulator {

namespace {

const IMAGE_NT_HEADERS &Headers(HMODULE module) {
    return *AtRva<const IMAGE_NT_HEADERS>(module,
                                          static_cast<std::size_t>(AtRva<const IMAGE_DOS_HEADER>(module, 0)->e_lfanew));
}

bool Within(HMODULE module, std::size_t rva, std::size_t size) {
    const std::size_t imageSize = ImageSize(module);
    return rva != 0 && rva < imageSize && size <= imageSize - rva;
}

bool IsLibraryName(HMODULE module, DWORD rva) {
    constexpr std::size_t longest = 64;
    constexpr std::string_view suffix = ".dll";
    if (!Within(module, rva, longest))
        return false;
    const char *text = AtRva<const char>(module, rva);
    const std::size_t length = strnlen(text, longest);
    if (length == longest || length <= suffix.size())
        return false;
    const auto printable = [](char c) { return c > ' ' && c < 127; };
    return std::all_of(text, text + length, printable) &&
           _strnicmp(text + length - suffix.size(), suffix.data(), suffix.size()) == 0;
}

bool IsDelayLoadRecord(HMODULE module, const IMAGE_DELAYLOAD_DESCRIPTOR &record) {
    return record.Attributes.AllAttributes == 1 && record.TimeDateStamp == 0 &&
           Within(module, record.ModuleHandleRVA, sizeof(HMODULE)) &&
           Within(module, record.ImportAddressTableRVA, sizeof(IMAGE_THUNK_DATA)) &&
           Within(module, record.ImportNameTableRVA, sizeof(IMAGE_THUNK_DATA)) &&
           IsLibraryName(module, record.DllNameRVA);
}

void SearchSection(HMODULE module, const IMAGE_SECTION_HEADER &section,
                   std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> &found) {
    constexpr std::size_t step = alignof(IMAGE_DELAYLOAD_DESCRIPTOR);
    const std::size_t end = section.VirtualAddress + std::min(section.Misc.VirtualSize, section.SizeOfRawData);
    for (std::size_t rva = section.VirtualAddress; rva + sizeof(IMAGE_DELAYLOAD_DESCRIPTOR) <= end; rva += step) {
        const auto *record = AtRva<const IMAGE_DELAYLOAD_DESCRIPTOR>(module, rva);
        if (IsDelayLoadRecord(module, *record))
            found.push_back(record);
    }
}

std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> SearchSections(HMODULE module) {
    constexpr DWORD unwanted = IMAGE_SCN_MEM_DISCARDABLE | IMAGE_SCN_CNT_UNINITIALIZED_DATA;
    std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> found;
    const IMAGE_NT_HEADERS &headers = Headers(module);
    const IMAGE_SECTION_HEADER *section = IMAGE_FIRST_SECTION(&headers);
    for (WORD i = 0; i < headers.FileHeader.NumberOfSections; ++i, ++section) {
        if ((section->Characteristics & unwanted) == 0 && (section->Characteristics & IMAGE_SCN_MEM_READ) != 0)
            SearchSection(module, *section, found);
    }
    return found;
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
    std::stable_sort(exports.begin(), exports.end(),
                     [](const Export &a, const Export &b) { return a.ordinal < b.ordinal; });
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

std::vector<const IMAGE_DELAYLOAD_DESCRIPTOR *> DelayLoadRecords(HMODULE module) {
    const IMAGE_DATA_DIRECTORY *directory = FindDirectory(module, IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT);
    if (directory == nullptr)
        return SearchSections(module);
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
