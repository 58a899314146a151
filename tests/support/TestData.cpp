#include "TestData.h"

#include <iterator>

#include <windows.h>

std::filesystem::path BinaryFolder() {
    wchar_t path[MAX_PATH * 4] = L"";
    GetModuleFileNameW(nullptr, path, static_cast<DWORD>(std::size(path)));
    return std::filesystem::path(path).parent_path();
}

std::filesystem::path TestData(const std::filesystem::path &name) {
    return (BinaryFolder() / L"test-data" / name).make_preferred();
}
