#include "InfFile.h"

#include <cstddef>
#include <span>

#include <windows.h>

#include "InfScan.h"
#include "ReadView.h"
#include "common/Unique.h"

namespace {

/// A view of a mapped file.
using View = Unique<const void *, UnmapViewOfFile>;

struct InfFile {
    std::span<const std::byte> content;
    const wchar_t *driver = nullptr;
};

void FindDriverOfInfFile(void *file) {
    auto &inf = *static_cast<InfFile *>(file);
    inf.driver = ScanInfForDriver(inf.content);
}

}  // namespace

const wchar_t *DriverOfInfFile(const std::wstring &path) {
    const UniqueHandle file(UniqueHandleOrNull(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                                           OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN, nullptr)));
    if (!file)
        return nullptr;
    // Not the size from the directory: the file may have shrunk since. From here on nobody can write to it.
    LARGE_INTEGER size = {};
    if (GetFileSizeEx(file.get(), &size) == 0)
        return nullptr;
    const UniqueHandle mapping(CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
    if (!mapping)
        return nullptr;
    const View view(MapViewOfFile(mapping.get(), FILE_MAP_READ, 0, 0, 0));
    if (!view)
        return nullptr;
    InfFile inf{{static_cast<const std::byte *>(view.get()), static_cast<std::size_t>(size.QuadPart)}};
    // A file with a bad sector can still be mapped.
    return ReadView(inf.content, &FindDriverOfInfFile, &inf) ? inf.driver : nullptr;
}
