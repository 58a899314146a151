#include "ImportTable.h"

#include <algorithm>
#include <cstring>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "ModuleImage.h"
#include "SimulatorTestSupport.h"

using namespace Simulator;
using namespace SimulatorTest;

namespace {

DWORD WINAPI FixedTick() {
    return 4711;
}

DWORD WINAPI OtherTick() {
    return 815;
}

/// The compiler keeps the import's address for the rest of a function; a call through this reads it again.
DWORD (*volatile Tick)() = [] { return GetTickCount(); };

DWORD Protection(const void *address) {
    MEMORY_BASIC_INFORMATION info{};
    EXPECT_NE(VirtualQuery(address, &info, sizeof info), 0U);
    return info.Protect;
}

void *RealTick() {
    return reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "GetTickCount"));
}

/// An image of one section, laid out as the loader would map it.
class HandmadeImage {
public:
    HandmadeImage() : m_bytes(0x2000) {
        auto &dos = At<IMAGE_DOS_HEADER>(0);
        dos.e_magic = IMAGE_DOS_SIGNATURE;
        dos.e_lfanew = 0x40;
        auto &headers = At<IMAGE_NT_HEADERS>(0x40);
        headers.Signature = IMAGE_NT_SIGNATURE;
        headers.FileHeader.NumberOfSections = 1;
        headers.FileHeader.SizeOfOptionalHeader = sizeof(IMAGE_OPTIONAL_HEADER);
        headers.OptionalHeader.SizeOfImage = 0x2000;
        headers.OptionalHeader.NumberOfRvaAndSizes = IMAGE_NUMBEROF_DIRECTORY_ENTRIES;
        IMAGE_SECTION_HEADER &section = *IMAGE_FIRST_SECTION(&headers);
        section.VirtualAddress = 0x1000;
        section.Misc.VirtualSize = 0x1000;
        section.SizeOfRawData = 0x1000;
        section.Characteristics = IMAGE_SCN_MEM_READ | IMAGE_SCN_CNT_CODE;
    }

    template <class T>
    T &At(std::size_t rva) {
        return *reinterpret_cast<T *>(m_bytes.data() + rva);
    }
    HMODULE Module() { return reinterpret_cast<HMODULE>(m_bytes.data()); }

    /// Writes a record of one function of "late.dll"; the test sets the header's entry.
    void AddDelayRecord(std::size_t rva) {
        auto &record = At<IMAGE_DELAYLOAD_DESCRIPTOR>(rva);
        record.Attributes.AllAttributes = 1;
        record.DllNameRVA = 0x1800;
        record.ModuleHandleRVA = 0x1820;
        record.ImportAddressTableRVA = 0x1830;
        record.ImportNameTableRVA = 0x1840;
        std::strcpy(&At<char>(0x1800), "late.dll");
        At<std::uint64_t>(0x1840) = 0x1850;
        std::strcpy(&At<char>(0x1852), "LateOne");
        At<void *>(0x1830) = m_bytes.data();
    }

private:
    std::vector<char> m_bytes;
};

bool Has(const std::vector<std::string> &names, const char *name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

TEST(ModuleImage, ReportsSizeAndExtent) {
    MEMORY_BASIC_INFORMATION info{};
    ASSERT_NE(VirtualQuery(reinterpret_cast<void *>(&FixedTick), &info, sizeof info), 0U);
    EXPECT_EQ(info.AllocationBase, ThisProgram());
    EXPECT_GT(ImageSize(ThisProgram()), 0x1000U);
    EXPECT_TRUE(ImageContains(ThisProgram(), reinterpret_cast<void *>(&FixedTick)));
    EXPECT_FALSE(ImageContains(ThisProgram(), RealTick()));
}

TEST(ModuleImage, ReadsTheHardeningFlags) {
    constexpr WORD wanted = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_NX_COMPAT |
                            IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA;
    EXPECT_EQ(DllCharacteristics(ThisProgram()) & wanted, wanted);
}

TEST(ModuleImage, ListsExportsThatTheLoaderFinds) {
    const HMODULE kernel = GetModuleHandleW(L"kernel32.dll");
    const std::vector<Export> exports = Exports(kernel);
    ASSERT_GT(exports.size(), 500U);
    const auto tick = std::find_if(exports.begin(), exports.end(), [](const Export &e) { return e.name == "Sleep"; });
    ASSERT_NE(tick, exports.end());
    EXPECT_EQ(AtRva<void>(kernel, tick->rva), reinterpret_cast<void *>(GetProcAddress(kernel, "Sleep")));
    EXPECT_EQ(reinterpret_cast<void *>(GetProcAddress(kernel, MAKEINTRESOURCEA(tick->ordinal))),
              AtRva<void>(kernel, tick->rva));
    EXPECT_TRUE(tick->forwardedTo.empty());
}

TEST(ModuleImage, ReportsTheTargetOfAForwarder) {
    const std::vector<Export> exports = Exports(GetModuleHandleW(L"kernel32.dll"));
    const auto heap =
        std::find_if(exports.begin(), exports.end(), [](const Export &e) { return e.name == "HeapAlloc"; });
    ASSERT_NE(heap, exports.end());
    EXPECT_EQ(heap->forwardedTo, "NTDLL.RtlAllocateHeap");
}

TEST(ModuleImage, SortsExportNamesAndOmitsThoseWithoutName) {
    const std::vector<std::string> names = ExportNames(GetModuleHandleW(L"kernel32.dll"));
    EXPECT_TRUE(std::is_sorted(names.begin(), names.end()));
    EXPECT_TRUE(Has(names, "CreateFileW"));
    EXPECT_FALSE(Has(names, ""));
}

TEST(ModuleImage, AcceptsAModuleWithoutAnyTable) {
    HandmadeImage image;
    EXPECT_TRUE(Exports(image.Module()).empty());
    EXPECT_TRUE(Imports(image.Module()).empty());
    EXPECT_TRUE(DelayLoadedLibraries(image.Module()).empty());
}

TEST(ModuleImage, ReadsDelayLoadedLibrariesFromTheHeader) {
    HandmadeImage image;
    image.AddDelayRecord(0x1200);
    auto &headers = image.At<IMAGE_NT_HEADERS>(0x40);
    headers.OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT] = {0x1200, 64};
    EXPECT_EQ(DelayLoadedLibraries(image.Module()), std::vector<std::string>{"late.dll"});
}

TEST(ModuleImage, FindsWhatTheShippedModuleLoadsOnFirstUse) {
    const HMODULE module = LoadLibraryExW(L"fc.dll", nullptr, DONT_RESOLVE_DLL_REFERENCES);
    ASSERT_NE(module, nullptr);
    const std::vector<std::string> delayed = DelayLoadedLibraries(module);
    const std::vector<std::string> exported = ExportNames(module);
    const std::vector<Import> imports = Imports(module);
    FreeLibrary(module);
    EXPECT_EQ(delayed, std::vector<std::string>{"vti.dll"});
    EXPECT_TRUE(Has(exported, "luaopen_fc"));
    const auto late = [](const Import &import) { return import.delayed && import.function == "vti_set_profiler"; };
    EXPECT_EQ(std::count_if(imports.begin(), imports.end(), late), 1);
}

TEST(ImportTable, ListsWhatTheModuleImportsWithItsAddress) {
    const std::vector<Import> imports = Imports(WxLibrary());
    const auto sleep =
        std::find_if(imports.begin(), imports.end(), [](const Import &i) { return i.function == "Sleep"; });
    ASSERT_NE(sleep, imports.end());
    EXPECT_TRUE(SameLibrary(sleep->library, "kernel32"));
    EXPECT_EQ(sleep->Address(), reinterpret_cast<void *>(GetProcAddress(GetModuleHandleW(L"kernel32.dll"), "Sleep")));
    EXPECT_FALSE(sleep->delayed);
}

TEST(ImportTable, ListsDelayedImports) {
    HandmadeImage image;
    image.At<IMAGE_NT_HEADERS>(0x40).OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT].VirtualAddress =
        0x1200;
    image.AddDelayRecord(0x1200);
    const std::vector<Import> imports = Imports(image.Module());
    ASSERT_EQ(imports.size(), 1U);
    EXPECT_EQ(imports[0].library, "late.dll");
    EXPECT_EQ(imports[0].function, "LateOne");
    EXPECT_TRUE(imports[0].delayed);
    EXPECT_EQ(imports[0].Address(), image.Module());
}

TEST(ImportTable, ComparesNamesOfLibrariesLoosely) {
    EXPECT_TRUE(SameLibrary("KERNEL32.dll", "kernel32"));
    EXPECT_TRUE(SameLibrary("msvcrt", "MSVCRT.DLL"));
    EXPECT_FALSE(SameLibrary("kernel32.dll", "kernelbase.dll"));
    EXPECT_FALSE(SameLibrary(".dll", ""));
}

TEST(Redirection, DirectsCallsToTheReplacement) {
    const Redirection redirection(ThisProgram(), "GetTickCount", reinterpret_cast<void *>(&FixedTick));
    ASSERT_TRUE(redirection.Found());
    EXPECT_EQ(Tick(), 4711U);
    EXPECT_EQ(redirection.Original(), RealTick());
}

TEST(Redirection, RestoresTheOriginalWhenItEnds) {
    void **slot = FindSlot(ThisProgram(), "GetTickCount");
    ASSERT_NE(slot, nullptr);
    {
        const Redirection redirection(ThisProgram(), "GetTickCount", reinterpret_cast<void *>(&FixedTick));
        ASSERT_EQ(*slot, reinterpret_cast<void *>(&FixedTick));
    }
    EXPECT_EQ(*slot, RealTick());
    EXPECT_NE(Tick(), 4711U);
}

TEST(Redirection, DoesNotAffectOtherModules) {
    void **slot = FindSlot(WxLibrary(), "Sleep");
    ASSERT_NE(slot, nullptr);
    void *before = *slot;
    const Redirection redirection(ThisProgram(), "Sleep", reinterpret_cast<void *>(&FixedTick));
    ASSERT_TRUE(redirection.Found());
    EXPECT_EQ(*slot, before);
}

TEST(Redirection, AffectsOnlyTheNamedLibrary) {
    const Redirection wrong(ThisProgram(), "GetTickCount", reinterpret_cast<void *>(&FixedTick), "user32.dll");
    EXPECT_FALSE(wrong.Found());
    EXPECT_EQ(wrong.Original(), nullptr);
    EXPECT_NE(Tick(), 4711U);
    const Redirection right(ThisProgram(), "GetTickCount", reinterpret_cast<void *>(&FixedTick), "KERNEL32");
    EXPECT_EQ(Tick(), 4711U);
}

TEST(Redirection, ReportsAFunctionThatIsNotImported) {
    const Redirection redirection(ThisProgram(), "NoSuchFunction", reinterpret_cast<void *>(&FixedTick));
    EXPECT_FALSE(redirection.Found());
}

TEST(Redirection, DoesNotRestoreASlotThatWasChangedMeanwhile) {
    void **slot = FindSlot(ThisProgram(), "GetTickCount");
    ASSERT_NE(slot, nullptr);
    std::optional<SlotRedirection> second;
    {
        const Redirection first(ThisProgram(), "GetTickCount", reinterpret_cast<void *>(&FixedTick));
        second.emplace(ThisProgram(), slot, reinterpret_cast<void *>(&OtherTick));
    }
    EXPECT_EQ(Tick(), 815U);
    second.reset();
    EXPECT_EQ(Tick(), 4711U) << "the second puts back what it found";
    SlotRedirection repair(ThisProgram(), slot, RealTick());
    repair.Abandon();
}

TEST(Redirection, KeepsTheProtectionOfThePages) {
    void **slot = FindSlot(WxLibrary(), "Sleep");
    ASSERT_NE(slot, nullptr);
    DWORD before = 0;
    ASSERT_TRUE(VirtualProtect(slot, sizeof *slot, PAGE_READONLY, &before));
    {
        const SlotRedirection redirection(WxLibrary(), slot, *slot);
        EXPECT_TRUE(redirection.InForce());
        EXPECT_EQ(Protection(slot), static_cast<DWORD>(PAGE_READONLY));
    }
    EXPECT_EQ(Protection(slot), static_cast<DWORD>(PAGE_READONLY));
    EXPECT_TRUE(VirtualProtect(slot, sizeof *slot, before, &before));
}

TEST(Redirection, SurvivesItsModule) {
    LibraryCopy library(L"libwinpthread-1.dll");
    const HMODULE module = library.Load();
    ASSERT_NE(module, nullptr);
    const Redirection redirection(module, "Sleep", reinterpret_cast<void *>(&FixedTick));
    ASSERT_TRUE(redirection.Found());
    void **slot = FindSlot(module, "Sleep");
    const SlotRedirection watched(module, slot, reinterpret_cast<void *>(&OtherTick));
    ASSERT_TRUE(watched.InForce());
    library.Unload();
    ASSERT_EQ(GetModuleHandleW(library.Name().c_str()), nullptr);
    EXPECT_FALSE(watched.InForce());
}

TEST(Redirection, StaysWhenItIsAbandoned) {
    void **slot = FindSlot(ThisProgram(), "GetTickCount");
    ASSERT_NE(slot, nullptr);
    {
        SlotRedirection redirection(ThisProgram(), slot, reinterpret_cast<void *>(&FixedTick));
        redirection.Abandon();
    }
    EXPECT_EQ(Tick(), 4711U);
    SlotRedirection repair(ThisProgram(), slot, RealTick());
    repair.Abandon();
    EXPECT_NE(Tick(), 4711U);
}

TEST(Redirection, MovesWithItsOwner) {
    void **slot = FindSlot(ThisProgram(), "GetTickCount");
    ASSERT_NE(slot, nullptr);
    std::vector<SlotRedirection> owners;
    {
        SlotRedirection first(ThisProgram(), slot, reinterpret_cast<void *>(&FixedTick));
        owners.push_back(std::move(first));
    }
    EXPECT_EQ(Tick(), 4711U);
    owners.clear();
    EXPECT_EQ(*slot, RealTick());
    EXPECT_NE(Tick(), 4711U);
}
