#include "ImportTable.h"

#include <utility>

#include "ModuleImage.h"

namespace Simulator {

namespace {

/// VirtualProtect works on whole pages, which slots share.
SRWLOCK pagesLock = SRWLOCK_INIT;

void WriteSlot(void **slot, void *value) {
    AcquireSRWLockExclusive(&pagesLock);
    DWORD before = 0;
    if (VirtualProtect(slot, sizeof *slot, PAGE_READWRITE, &before)) {
        *slot = value;
        VirtualProtect(slot, sizeof *slot, before, &before);
    }
    ReleaseSRWLockExclusive(&pagesLock);
}

bool IsMapped(HMODULE module, void **slot) {
    MEMORY_BASIC_INFORMATION info{};
    return VirtualQuery(slot, &info, sizeof info) != 0 && info.AllocationBase == module && info.State == MEM_COMMIT;
}

std::string NameOfOrdinal(const char *library, WORD ordinal) {
    if (const HMODULE exporter = GetModuleHandleA(library)) {
        for (Export &entry : Exports(exporter)) {
            if (entry.ordinal == ordinal && !entry.name.empty())
                return std::move(entry.name);
        }
    }
    return "#" + std::to_string(ordinal);
}

/// Walks the two parallel tables of one library. The names come from the table written at link time: without it the
/// loader has overwritten them, and they are unknown.
void AddImports(HMODULE module, const char *library, DWORD names, DWORD addresses, bool delayed,
                std::vector<Import> &imports) {
    if (names == 0)
        return;
    const auto *name = AtRva<const IMAGE_THUNK_DATA>(module, names);
    auto *slot = AtRva<void *>(module, addresses);
    for (; name->u1.AddressOfData != 0; ++name, ++slot) {
        std::string function;
        if (IMAGE_SNAP_BY_ORDINAL(name->u1.Ordinal))
            function = NameOfOrdinal(library, static_cast<WORD>(IMAGE_ORDINAL(name->u1.Ordinal)));
        else
            function = AtRva<const IMAGE_IMPORT_BY_NAME>(module, name->u1.AddressOfData)->Name;
        imports.push_back({library, std::move(function), slot, delayed});
    }
}

std::string_view WithoutSuffix(std::string_view library) {
    constexpr std::string_view suffix = ".dll";
    if (library.size() > suffix.size() &&
        _strnicmp(library.data() + library.size() - suffix.size(), suffix.data(), suffix.size()) == 0)
        library.remove_suffix(suffix.size());
    return library;
}

}  // namespace

std::vector<Import> Imports(HMODULE module) {
    std::vector<Import> imports;
    if (const IMAGE_DATA_DIRECTORY *directory = FindDirectory(module, IMAGE_DIRECTORY_ENTRY_IMPORT)) {
        const auto *record = AtRva<const IMAGE_IMPORT_DESCRIPTOR>(module, directory->VirtualAddress);
        for (; record->Name != 0; ++record)
            AddImports(module, AtRva<const char>(module, record->Name), record->OriginalFirstThunk, record->FirstThunk,
                       false, imports);
    }
    for (const IMAGE_DELAYLOAD_DESCRIPTOR *record : DelayLoadRecords(module))
        AddImports(module, AtRva<const char>(module, record->DllNameRVA), record->ImportNameTableRVA,
                   record->ImportAddressTableRVA, true, imports);
    return imports;
}

SlotRedirection::SlotRedirection(HMODULE module, void **slot, void *replacement)
    : m_module(module), m_slot(slot), m_replacement(replacement), m_original(*slot) {
    WriteSlot(slot, replacement);
}

SlotRedirection::~SlotRedirection() {
    Restore();
}

SlotRedirection::SlotRedirection(SlotRedirection &&other) noexcept
    : m_module(other.m_module),
      m_slot(std::exchange(other.m_slot, nullptr)),
      m_replacement(other.m_replacement),
      m_original(other.m_original) {}

SlotRedirection &SlotRedirection::operator=(SlotRedirection &&other) noexcept {
    if (this != &other) {
        Restore();
        m_module = other.m_module;
        m_slot = std::exchange(other.m_slot, nullptr);
        m_replacement = other.m_replacement;
        m_original = other.m_original;
    }
    return *this;
}

bool SlotRedirection::InForce() const {
    return m_slot != nullptr && IsMapped(m_module, m_slot) && *m_slot == m_replacement;
}

void SlotRedirection::Restore() {
    if (InForce())
        WriteSlot(m_slot, m_original);
    m_slot = nullptr;
}

Redirection::Redirection(HMODULE module, std::string_view function, void *replacement, std::string_view library) {
    for (const Import &import : Imports(module)) {
        if (import.function == function && (library.empty() || SameLibrary(import.library, library)))
            m_slots.emplace_back(module, import.slot, replacement);
    }
}

bool SameLibrary(std::string_view one, std::string_view other) {
    one = WithoutSuffix(one);
    other = WithoutSuffix(other);
    return one.size() == other.size() && _strnicmp(one.data(), other.data(), one.size()) == 0;
}

}  // namespace Simulator
