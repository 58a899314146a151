#include "SystemFolders.h"

#include <functional>
#include <string>
#include <system_error>

#include <windows.h>

#include "CallScope.h"

namespace Simulator {

namespace {

/// Until the process ends. @return false if another process has it.
bool Reserve(const std::wstring &name) {
    SetLastError(ERROR_SUCCESS);
    const HANDLE mutex = CreateMutexW(nullptr, FALSE, name.c_str());
    if (GetLastError() != ERROR_ALREADY_EXISTS)
        return true;
    CloseHandle(mutex);
    return false;
}

/// The same in each run of a command line in a folder: it is in the paths that the module writes to traces and logs.
std::wstring NameOfRun() {
    const std::wstring run = std::filesystem::current_path().wstring() + GetCommandLineW();
    const std::wstring wanted = L"fc-devkit-" + std::to_wstring(std::hash<std::wstring>()(run) % 100'000'000);
    std::wstring name = wanted;
    for (int other = 2; !Reserve(name); ++other)  // the same run may be under way a second time
        name = wanted + L"." + std::to_wstring(other);
    return name;
}

std::filesystem::path FreshRoot() {
    static const std::wstring run = NameOfRun();
    static unsigned number = 0;
    return std::filesystem::temp_directory_path() / (run + L"-" + std::to_wstring(++number));
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
    RemoveTree(m_root);  // left by an earlier run that was ended
    for (const auto &folder : {System32() / L"drivers", Inf(), Catalogs(), ProgramData(), ProgramFiles(), Temp()})
        std::filesystem::create_directories(folder);
}

SystemFolders::~SystemFolders() {
    const InsideSimulator inside;
    RemoveTree(m_root);
}

}  // namespace Simulator
