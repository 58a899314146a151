#include "Leftovers.h"

#include <array>
#include <cstdint>

#include <windows.h>
#include <setupapi.h>

#include "DeviceManager.h"

namespace {

namespace Kind = Simulator::Kind;

struct Closer {
    std::string_view function;
    std::string_view kind;
    void (*release)(std::uintptr_t value);  ///< Null: it stays.
};

constexpr std::array<Closer, 9> kClosers{{
    {"CloseHandle", Kind::kHandle, [](auto value) { CloseHandle(reinterpret_cast<HANDLE>(value)); }},
    {"CloseServiceHandle", Kind::kService, [](auto value) { CloseServiceHandle(reinterpret_cast<SC_HANDLE>(value)); }},
    {"RegCloseKey", Kind::kKey, [](auto value) { RegCloseKey(reinterpret_cast<HKEY>(value)); }},
    {"FreeLibrary", Kind::kLibrary, [](auto value) { FreeLibrary(reinterpret_cast<HMODULE>(value)); }},
    {"FindClose", Kind::kFind, [](auto value) { FindClose(reinterpret_cast<HANDLE>(value)); }},
    {"UnmapViewOfFile", Kind::kView, [](auto value) { UnmapViewOfFile(reinterpret_cast<void *>(value)); }},
    {"SetupDiDestroyDeviceInfoList", Kind::kDeviceList,
     [](auto value) { SetupDiDestroyDeviceInfoList(reinterpret_cast<HDEVINFO>(value)); }},
    {"PdhCloseQuery", Kind::kQuery, nullptr},
    {"LocalFree", Kind::kLocalMemory, nullptr},
}};

}  // namespace

std::string_view KindReleasedBy(std::string_view function) {
    for (const Closer &closer : kClosers) {
        if (closer.function == function)
            return closer.kind;
    }
    return {};
}

void Release(const Simulator::BalanceItem &item) {
    for (const Closer &closer : kClosers) {
        if (closer.kind == item.kind && closer.release)
            closer.release(item.value);
    }
}

std::map<std::string, int> TakeBack(const std::vector<Simulator::BalanceItem> &items) {
    std::map<std::string, int> left;
    for (const Simulator::BalanceItem &item : items) {
        ++left[item.kind];
        Release(item);
    }
    return left;
}
