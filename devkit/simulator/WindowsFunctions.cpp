#include "WindowsFunctions.h"

#include "FunctionSet.h"

namespace Simulator {

namespace {

template <class... Fs>
void PassThrough(FunctionSet &functions) {
    (functions.PassThrough<Fs>(), ...);
}

}  // namespace

void InstallRegistry(FunctionSet &functions) {
    using namespace System;
    PassThrough<RegOpenKeyExW, RegCreateKeyExW, RegOpenKeyW, RegCreateKeyW, RegConnectRegistryW, RegQueryValueExW,
                RegSetValueExW, RegCloseKey, RegDeleteKeyW, NtDeleteKey, RegDeleteValueW, RegEnumKeyExW, RegEnumValueW>(
        functions);
}

void InstallFiles(FunctionSet &functions) {
    using namespace System;
    PassThrough<CreateFileW, GetFileSizeEx, ReadFile, WriteFile, GetFileAttributesW, GetFileAttributesExW,
                SetFileAttributesW, DeleteFileW, CreateDirectoryW, RemoveDirectoryW, FindFirstFileW, FindNextFileW,
                FindClose, CopyFileW, MoveFileExW, CreateFileMappingW, MapViewOfFile, UnmapViewOfFile, IsTextUnicode,
                fopen, _wfopen, fopen_s, _wfopen_s, fgets, fputs, fputc, fwrite, fflush, ferror, fclose,
                GetFileVersionInfoSizeW, GetFileVersionInfoW, VerQueryValueW>(functions);
}

void InstallThreads(FunctionSet &functions) {
    using namespace System;
    PassThrough<CreateThread, _beginthreadex, ResumeThread, TerminateThread, CreateEventW, DuplicateHandle>(functions);
}

}  // namespace Simulator
