// The module as a file and as a loaded library, before and while Lua opens it. This program does not import vti.dll, so
// that it can observe when the module loads it.

#include <algorithm>
#include <fstream>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FcModule.h"
#include "ImportTable.h"
#include "ModuleImage.h"

namespace {

/// The 74 functions of cJSON's interface that the module exports.
const std::set<std::string> kJsonFunctions = {"cJSON_AddArrayToObject",
                                              "cJSON_AddBoolToObject",
                                              "cJSON_AddFalseToObject",
                                              "cJSON_AddItemReferenceToArray",
                                              "cJSON_AddItemReferenceToObject",
                                              "cJSON_AddItemToArray",
                                              "cJSON_AddItemToObject",
                                              "cJSON_AddItemToObjectCS",
                                              "cJSON_AddNullToObject",
                                              "cJSON_AddNumberToObject",
                                              "cJSON_AddObjectToObject",
                                              "cJSON_AddRawToObject",
                                              "cJSON_AddStringToObject",
                                              "cJSON_AddTrueToObject",
                                              "cJSON_Compare",
                                              "cJSON_CreateArray",
                                              "cJSON_CreateArrayReference",
                                              "cJSON_CreateBool",
                                              "cJSON_CreateDoubleArray",
                                              "cJSON_CreateFalse",
                                              "cJSON_CreateFloatArray",
                                              "cJSON_CreateIntArray",
                                              "cJSON_CreateNull",
                                              "cJSON_CreateNumber",
                                              "cJSON_CreateObject",
                                              "cJSON_CreateObjectReference",
                                              "cJSON_CreateRaw",
                                              "cJSON_CreateString",
                                              "cJSON_CreateStringArray",
                                              "cJSON_CreateStringReference",
                                              "cJSON_CreateTrue",
                                              "cJSON_Delete",
                                              "cJSON_DeleteItemFromArray",
                                              "cJSON_DeleteItemFromObject",
                                              "cJSON_DeleteItemFromObjectCaseSensitive",
                                              "cJSON_DetachItemFromArray",
                                              "cJSON_DetachItemFromObject",
                                              "cJSON_DetachItemFromObjectCaseSensitive",
                                              "cJSON_DetachItemViaPointer",
                                              "cJSON_Duplicate",
                                              "cJSON_GetArrayItem",
                                              "cJSON_GetArraySize",
                                              "cJSON_GetErrorPtr",
                                              "cJSON_GetObjectItem",
                                              "cJSON_GetObjectItemCaseSensitive",
                                              "cJSON_GetStringValue",
                                              "cJSON_HasObjectItem",
                                              "cJSON_InitHooks",
                                              "cJSON_InsertItemInArray",
                                              "cJSON_IsArray",
                                              "cJSON_IsBool",
                                              "cJSON_IsFalse",
                                              "cJSON_IsInvalid",
                                              "cJSON_IsNull",
                                              "cJSON_IsNumber",
                                              "cJSON_IsObject",
                                              "cJSON_IsRaw",
                                              "cJSON_IsString",
                                              "cJSON_IsTrue",
                                              "cJSON_Minify",
                                              "cJSON_Parse",
                                              "cJSON_ParseWithOpts",
                                              "cJSON_Print",
                                              "cJSON_PrintBuffered",
                                              "cJSON_PrintPreallocated",
                                              "cJSON_PrintUnformatted",
                                              "cJSON_ReplaceItemInArray",
                                              "cJSON_ReplaceItemInObject",
                                              "cJSON_ReplaceItemInObjectCaseSensitive",
                                              "cJSON_ReplaceItemViaPointer",
                                              "cJSON_SetNumberHelper",
                                              "cJSON_Version",
                                              "cJSON_free",
                                              "cJSON_malloc"};

TEST(ModuleFile, ExportsOnlyTheEntryPointAndTheJsonInterface) {
    const FcModule module;
    std::set<std::string> expected = kJsonFunctions;
    ASSERT_EQ(expected.size(), 74U);
    expected.insert("luaopen_fc");
    const std::vector<std::string> names = Simulator::ExportNames(module.handle());
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), expected);
    EXPECT_EQ(Simulator::Exports(module.handle()).size(), 75U) << "no export by ordinal only";
}

TEST(ModuleFile, ExportsJsonFunctionsThatWork) {
    const FcModule module;
    const auto version =
        reinterpret_cast<const char *(*)()>(reinterpret_cast<void *>(GetProcAddress(module.handle(), "cJSON_Version")));
    ASSERT_NE(version, nullptr);
    EXPECT_EQ(std::string(version()).substr(0, 4), "1.7.");
}

TEST(ModuleFile, IsLinkedForRandomAddressesAndWithoutExecutableData) {
    const FcModule module;
    const WORD wanted = IMAGE_DLLCHARACTERISTICS_DYNAMIC_BASE | IMAGE_DLLCHARACTERISTICS_HIGH_ENTROPY_VA |
                        IMAGE_DLLCHARACTERISTICS_NX_COMPAT;
    EXPECT_EQ(Simulator::DllCharacteristics(module.handle()) & wanted, wanted);
}

TEST(ModuleFile, NamesTheDriverLibraryInItsDelayImportDirectory) {
    const FcModule module;
    EXPECT_NE(Simulator::FindDirectory(module.handle(), IMAGE_DIRECTORY_ENTRY_DELAY_IMPORT), nullptr);
    EXPECT_EQ(Simulator::DelayLoadedLibraries(module.handle()), std::vector<std::string>{"vti.dll"});
}

TEST(ModuleFile, NamesItsSymbolFileWithoutAPath) {
    const FcModule module;
    EXPECT_EQ(Simulator::SymbolFile(module.handle()), "fc.pdb");
}

TEST(ModuleFile, HasAVersionResource) {
    wchar_t path[] = L"fc.dll";
    const DWORD size = GetFileVersionInfoSizeW(path, nullptr);
    ASSERT_GT(size, 0U);
    std::vector<char> data(size);
    ASSERT_TRUE(GetFileVersionInfoW(path, 0, size, data.data()));
    VS_FIXEDFILEINFO *fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(data.data(), L"\\", reinterpret_cast<void **>(&fixed), &length));
    EXPECT_EQ(fixed->dwFileType, static_cast<DWORD>(VFT_DLL));
    EXPECT_EQ(fixed->dwFileVersionMS, 0x00010000U);
    wchar_t *name = nullptr;
    ASSERT_TRUE(VerQueryValueW(data.data(), L"\\StringFileInfo\\040904B0\\OriginalFilename",
                               reinterpret_cast<void **>(&name), &length));
    EXPECT_STREQ(name, L"fc.dll");
}

TEST(ModuleLoading, LoadsTheDriverLibraryOnlyWhenLuaOpensTheModule) {
    while (const HMODULE leftByAnotherTest = GetModuleHandleW(L"vti.dll"))
        FreeLibrary(leftByAnotherTest);
    const FcModule module;
    for (const Simulator::Import &import : Simulator::Imports(module.handle()))
        EXPECT_TRUE(import.delayed || !Simulator::SameLibrary(import.library, "vti.dll")) << import.function;
    EXPECT_EQ(Simulator::DelayLoadedLibraries(module.handle()), std::vector<std::string>{"vti.dll"});
    EXPECT_EQ(GetModuleHandleW(L"vti.dll"), nullptr);

    const LuaState lua;
    lua_pushcfunction(lua, module.luaopen());
    lua_call(lua, 0, 1);
    EXPECT_NE(GetModuleHandleW(L"vti.dll"), nullptr);
    EXPECT_EQ(lua_type(lua, -1), LUA_TBOOLEAN);
    EXPECT_TRUE(lua_toboolean(lua, -1));
}

TEST(ModuleLoading, HoldsOneExtraReferenceToItself) {
    const HMODULE module = LoadLibraryW(L"fc.dll");
    ASSERT_NE(module, nullptr);
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetModuleHandleW(L"fc.dll"), module) << "the one reference taken here is released";
    EXPECT_TRUE(FreeLibrary(module));
    EXPECT_EQ(GetModuleHandleW(L"fc.dll"), nullptr) << "there was exactly one more";
}

TEST(ModuleLoading, AFreshLoadStartsWithFreshObjects) {
    for (int i = 0; i < 3; ++i) {
        const FcModule module;
        LuaState lua;
        lua_pushcfunction(lua, module.luaopen());
        lua_call(lua, 0, 0);
        lua.Run("assert(#SLB.filter.GetConnMetrics() == 0) SLB.filter.AddToConnMetrics('key', '', 1)");
    }
}

// ---- The order in which the module's objects are constructed, as observed by the libraries that they call

enum class Made { Lock, Time, Library };
struct MadeObject {
    Made what;
    const void *where;
};
std::vector<MadeObject> *constructed = nullptr;

void(WINAPI *realInitialize)(CRITICAL_SECTION *) = nullptr;
HMODULE(WINAPI *realLoad)(const wchar_t *, HANDLE, DWORD) = nullptr;
HMODULE(WINAPI *realLoadPlain)(const wchar_t *) = nullptr;
void(WINAPI *realTime)(FILETIME *) = nullptr;

void WINAPI NoteLock(CRITICAL_SECTION *section) {
    if (constructed)
        constructed->push_back({Made::Lock, section});
    realInitialize(section);
}

HMODULE WINAPI NoteLibrary(const wchar_t *name) {
    if (constructed)
        constructed->push_back({Made::Library, nullptr});
    return realLoadPlain(name);
}

HMODULE WINAPI NoteLibraryEx(const wchar_t *name, HANDLE file, DWORD flags) {
    if (constructed)
        constructed->push_back({Made::Library, nullptr});
    return realLoad(name, file, flags);
}

void WINAPI NoteTime(FILETIME *time) {
    if (constructed)
        constructed->push_back({Made::Time, nullptr});
    realTime(time);
}

template <typename Function>
Function As(void *address) {
    return reinterpret_cast<Function>(address);
}

TEST(ModuleLoading, ConstructsItsObjectsInOrder) {
    using Simulator::Redirection;
    const HMODULE wx = LoadLibraryW(L"" FC_WX_DLL);
    ASSERT_NE(wx, nullptr);
    const Redirection locks(wx, "InitializeCriticalSection", reinterpret_cast<void *>(&NoteLock));
    const Redirection libraries(wx, "LoadLibraryW", reinterpret_cast<void *>(&NoteLibrary));
    const Redirection librariesEx(wx, "LoadLibraryExW", reinterpret_cast<void *>(&NoteLibraryEx));
    const Redirection times(GetModuleHandleW(L"msvcrt.dll"), "GetSystemTimeAsFileTime",
                            reinterpret_cast<void *>(&NoteTime));
    ASSERT_TRUE(locks.Found() && times.Found() && (libraries.Found() || librariesEx.Found()));
    realInitialize = As<decltype(realInitialize)>(locks.Original());
    realLoadPlain = As<decltype(realLoadPlain)>(libraries.Original());
    realLoad = As<decltype(realLoad)>(librariesEx.Original());
    realTime = As<decltype(realTime)>(times.Original());

    std::vector<MadeObject> seen;
    constructed = &seen;
    const FcModule module;
    constructed = nullptr;

    std::string order;
    for (const MadeObject &object : seen) {
        if (object.what == Made::Lock && Simulator::ImageContains(module.handle(), object.where))
            order += "lock ";
        else if (object.what == Made::Time)
            order += "time ";
        else if (object.what == Made::Library)
            order += "library ";
    }
    EXPECT_EQ(order, "lock time library lock lock ");
}

}  // namespace
