#include "Leftovers.h"

#include <cstdint>
#include <functional>

#include <windows.h>
#include <setupapi.h>

#include "DeviceManager.h"

std::map<std::string, int> TakeBack(const std::vector<Simulator::BalanceItem> &items) {
    static const std::map<std::string, std::function<void(std::uintptr_t)>> closers{
        {Simulator::Kind::kHandle, [](auto value) { CloseHandle(reinterpret_cast<HANDLE>(value)); }},
        {Simulator::Kind::kService, [](auto value) { CloseServiceHandle(reinterpret_cast<SC_HANDLE>(value)); }},
        {Simulator::Kind::kKey, [](auto value) { RegCloseKey(reinterpret_cast<HKEY>(value)); }},
        {Simulator::Kind::kLibrary, [](auto value) { FreeLibrary(reinterpret_cast<HMODULE>(value)); }},
        {Simulator::Kind::kFind, [](auto value) { FindClose(reinterpret_cast<HANDLE>(value)); }},
        {Simulator::Kind::kView, [](auto value) { UnmapViewOfFile(reinterpret_cast<void *>(value)); }},
        {Simulator::Kind::kDeviceList,
         [](auto value) { SetupDiDestroyDeviceInfoList(reinterpret_cast<HDEVINFO>(value)); }},
    };
    std::map<std::string, int> left;
    for (const Simulator::BalanceItem &item : items) {
        ++left[item.kind];
        const auto closer = closers.find(item.kind);
        if (closer != closers.end())
            closer->second(item.value);
    }
    return left;
}
