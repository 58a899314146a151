#include "Program.h"

#include <windows.h>

namespace {

/// Without those that the program itself imports: Windows would not start it.
constexpr const wchar_t *kLibraries[] = {L"fc.dll", L"vti.dll"};

}  // namespace

std::wstring ProgramFolder() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length < path.size()) {
            path.resize(length);
            return path.substr(0, path.find_last_of(L'\\') + 1);
        }
        path.resize(path.size() * 2);
    }
}

bool FindLibraries(std::wstring &error) {
    for (const wchar_t *library : kLibraries) {
        const std::wstring path = ProgramFolder() + library;
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            error = std::wstring(library) + L" is missing: it was looked for as " + path +
                    L"; put it beside fc-host.exe, where the build leaves it";
            return false;
        }
    }
    return true;
}
