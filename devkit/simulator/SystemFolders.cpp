#include "SystemFolders.h"

#include <system_error>

#include "CallScope.h"

namespace Simulator {

namespace {

std::filesystem::path FreshRoot() {
    static unsigned number = 0;
    wchar_t temp[MAX_PATH + 1] = L"";
    GetTempPathW(MAX_PATH + 1, temp);
    const std::wstring name = L"fc-devkit-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++number);
    return std::filesystem::path(temp) / name;
}

void RemoveTree(const std::filesystem::path &root) {
    std::error_code ignored;
    // An explicit loop, since a range-based one increments with an operator that throws.
    for (std::filesystem::recursive_directory_iterator entry(root, ignored), end; entry != end;
         entry.increment(ignored))
        SetFileAttributesW(entry->path().c_str(), FILE_ATTRIBUTE_NORMAL);  // read-only ones would stay
    std::filesystem::remove_all(root, ignored);
}

}  // namespace

SystemFolders::SystemFolders() {
    const InsideSimulator inside;
    m_root = FreshRoot();
    RemoveTree(m_root);  // left by an earlier process with this id
    for (const auto &folder : {System32() / L"drivers", Inf(), Catalogs(), ProgramData(), ProgramFiles(), Temp()})
        std::filesystem::create_directories(folder);
}

SystemFolders::~SystemFolders() {
    const InsideSimulator inside;
    RemoveTree(m_root);
}

}  // namespace Simulator
