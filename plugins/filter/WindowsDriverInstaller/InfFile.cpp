#include "InfFile.h"

#include <cstddef>
#include <memory>
#include <type_traits>

#include <windows.h>

#include "InfScan.h"

namespace {

struct CloseFile {
    void operator()(HANDLE handle) const { (void)CloseHandle(handle); }
};
using Handle = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseFile>;

struct Unmap {
    void operator()(const void *view) const { (void)UnmapViewOfFile(view); }
};
using View = std::unique_ptr<const void, Unmap>;

}  // namespace

const wchar_t *DriverOfInfFile(const std::wstring &path) {
    const HANDLE opened = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                      FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
    if (opened == INVALID_HANDLE_VALUE)
        return nullptr;
    const Handle file(opened);
    // Not the size that the folder tells: the file may have shrunk since. From here on nobody can write to it.
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file.get(), &size) == 0)
        return nullptr;
    const Handle mapping(CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!mapping)
        return nullptr;
    const View view(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    if (!view)
        return nullptr;
    return DriverNamedIn({static_cast<const std::byte *>(view.get()), static_cast<std::size_t>(size.QuadPart)});
}
