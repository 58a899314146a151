// The functions that report the system's folders, and those that take paths.
#include "SystemFolders.h"

#include <cstring>
#include <cwchar>
#include <optional>
#include <string>
#include <utility>

#include "FunctionSet.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

/// Returns like GetSystemDirectoryW and similar functions: the length, or the required size if it does not fit.
UINT Answer(const std::wstring &path, wchar_t *buffer, UINT size) {
    const auto length = static_cast<UINT>(path.size());
    if (size <= length)
        return length + 1;
    std::wmemcpy(buffer, path.c_str(), length + 1);
    return length;
}

std::optional<std::filesystem::path> ShellFolder(const SystemFolders &folders, int id) {
    switch (id & ~CSIDL_FLAG_MASK) {
        case CSIDL_WINDOWS:
            return folders.Windows();
        case CSIDL_SYSTEM:
            return folders.System32();
        case CSIDL_COMMON_APPDATA:
            return folders.ProgramData();
        case CSIDL_PROGRAM_FILES:
            return folders.ProgramFiles();
        default:
            return std::nullopt;
    }
}

/// Maps the path in the function's first argument.
template <class F>
void MapFirst(FunctionSet &functions, const MappedPaths &paths) {
    functions.Put<F>([&paths](const auto &next, const wchar_t *path, auto... rest) {
        const std::optional<std::wstring> mapped = paths.Mapped(path);
        return next(mapped ? mapped->c_str() : path, rest...);
    });
}

/// Maps the paths in the function's first two arguments.
template <class F>
void MapBoth(FunctionSet &functions, const MappedPaths &paths) {
    functions.Put<F>([&paths](const auto &next, const wchar_t *from, const wchar_t *to, auto... rest) {
        const std::optional<std::wstring> mappedFrom = paths.Mapped(from);
        const std::optional<std::wstring> mappedTo = paths.Mapped(to);
        return next(mappedFrom ? mappedFrom->c_str() : from, mappedTo ? mappedTo->c_str() : to, rest...);
    });
}

std::wstring FromLocale(const char *text) {
    if (text == nullptr)
        return {};
    std::wstring wide(std::strlen(text) + 1, L'\0');
    const int length = MultiByteToWideChar(CP_ACP, 0, text, -1, wide.data(), static_cast<int>(wide.size()));
    wide.resize(length > 0 ? static_cast<std::size_t>(length) - 1 : 0);
    return wide;
}

/// The C runtime's file functions; those with narrow paths open a mapped path through their wide counterpart, since the
/// locale may lack characters of a temporary folder's name.
void MapRuntimeFiles(FunctionSet &functions, const MappedPaths &paths) {
    MapFirst<System::_wfopen>(functions, paths);
    functions.Put<System::_wfopen_s>([&paths](const auto &next, FILE **file, const wchar_t *path, const wchar_t *mode) {
        const std::optional<std::wstring> mapped = paths.Mapped(path);
        return next(file, mapped ? mapped->c_str() : path, mode);
    });
    functions.Put<System::fopen>([&paths](const auto &next, const char *path, const char *mode) {
        const std::optional<std::wstring> mapped = paths.Mapped(FromLocale(path).c_str());
        return mapped ? System::_wfopen::Real(mapped->c_str(), FromLocale(mode).c_str()) : next(path, mode);
    });
    functions.Put<System::fopen_s>([&paths](const auto &next, FILE **file, const char *path, const char *mode) {
        const std::optional<std::wstring> mapped = paths.Mapped(FromLocale(path).c_str());
        return mapped ? System::_wfopen_s::Real(file, mapped->c_str(), FromLocale(mode).c_str())
                      : next(file, path, mode);
    });
}

}  // namespace

void InstallFolders(FunctionSet &functions, SystemFolders &folders) {
    functions.Put<System::GetSystemDirectoryW>([&folders](const auto &, wchar_t *buffer, UINT size) {
        return Answer(folders.System32().wstring(), buffer, size);
    });
    const auto windows = [&folders](const auto &, wchar_t *buffer, UINT size) {
        return Answer(folders.Windows().wstring(), buffer, size);
    };
    functions.Put<System::GetWindowsDirectoryW>(windows);
    functions.Put<System::GetSystemWindowsDirectoryW>(windows);
    functions.Put<System::GetTempPathW>([&folders](const auto &, DWORD size, wchar_t *buffer) -> DWORD {
        return Answer(folders.Temp().wstring() + L'\\', buffer, size);
    });
    functions.Put<System::SHGetFolderPathW>(
        [&folders](const auto &next, HWND window, int id, HANDLE token, DWORD flags, wchar_t *path) -> HRESULT {
            const std::optional<std::filesystem::path> folder = ShellFolder(folders, id);
            if (!folder)
                return next(window, id, token, flags, path);
            return Answer(folder->wstring(), path, MAX_PATH) < MAX_PATH ? S_OK : E_FAIL;
        });
}

void InstallMappedPaths(FunctionSet &functions, MappedPaths &paths) {
    MapFirst<System::CreateFileW>(functions, paths);
    MapFirst<System::GetFileAttributesW>(functions, paths);
    MapFirst<System::GetFileAttributesExW>(functions, paths);
    MapFirst<System::SetFileAttributesW>(functions, paths);
    MapFirst<System::DeleteFileW>(functions, paths);
    MapFirst<System::CreateDirectoryW>(functions, paths);
    MapFirst<System::RemoveDirectoryW>(functions, paths);
    MapFirst<System::FindFirstFileW>(functions, paths);
    MapBoth<System::CopyFileW>(functions, paths);
    MapBoth<System::MoveFileExW>(functions, paths);
    MapRuntimeFiles(functions, paths);
}

}  // namespace Simulator
