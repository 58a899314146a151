// The system functions that are simulated or passed through, each with the way in which it fails.
#pragma once

#include <windows.h>
#include <shlobj.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <process.h>

#include "Function.h"

// Documented for drivers; no header for programs declares it.
extern "C" __declspec(dllimport) LONG NTAPI NtDeleteKey(HANDLE key);

namespace Simulator::System {

// Registry
SIMULATOR_FUNCTION(RegOpenKeyExW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegCreateKeyExW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegOpenKeyW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegCreateKeyW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegConnectRegistryW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegQueryValueExW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegSetValueExW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegCloseKey, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegDeleteKeyW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(NtDeleteKey, "ntdll.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegDeleteValueW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegEnumKeyExW, "ADVAPI32.dll", ReturnsStatus);
SIMULATOR_FUNCTION(RegEnumValueW, "ADVAPI32.dll", ReturnsStatus);

// Files
SIMULATOR_FUNCTION(CreateFileW, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(GetFileSizeEx, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(ReadFile, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(WriteFile, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetFileAttributesW, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(GetFileAttributesExW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(SetFileAttributesW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(DeleteFileW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CreateDirectoryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(RemoveDirectoryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(FindFirstFileW, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(FindNextFileW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(FindClose, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CopyFileW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(MoveFileExW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CreateFileMappingW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(MapViewOfFile, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(UnmapViewOfFile, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(IsTextUnicode, "ADVAPI32.dll", CannotFail);
SIMULATOR_FUNCTION(fopen, kCRuntime, SetsErrno);
SIMULATOR_FUNCTION(_wfopen, kCRuntime, SetsErrno);
SIMULATOR_FUNCTION(fopen_s, kCRuntime, ReturnsStatus);
SIMULATOR_FUNCTION(_wfopen_s, kCRuntime, ReturnsStatus);
SIMULATOR_FUNCTION(fgets, kCRuntime, SetsErrno);
SIMULATOR_FUNCTION(fputs, kCRuntime, SetsErrnoReturnsEof);
SIMULATOR_FUNCTION(fputc, kCRuntime, SetsErrnoReturnsEof);
SIMULATOR_FUNCTION(fwrite, kCRuntime, SetsErrno);
SIMULATOR_FUNCTION(fflush, kCRuntime, SetsErrnoReturnsEof);
SIMULATOR_FUNCTION(ferror, kCRuntime, ReturnsStatus);
SIMULATOR_FUNCTION(fclose, kCRuntime, CannotFail);
SIMULATOR_FUNCTION(GetFileVersionInfoSizeW, "VERSION.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetFileVersionInfoW, "VERSION.dll", ReturnsZero);
SIMULATOR_FUNCTION(VerQueryValueW, "VERSION.dll", ReturnsZero);

// Folders
SIMULATOR_FUNCTION(GetSystemDirectoryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetWindowsDirectoryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetSystemWindowsDirectoryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetTempPathW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(SHGetFolderPathW, "SHELL32.dll", ReturnsResult);

// Time
SIMULATOR_FUNCTION(Sleep, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(SleepEx, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(WaitForSingleObject, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(WaitForSingleObjectEx, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(WaitForMultipleObjects, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(WaitForMultipleObjectsEx, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(GetTickCount, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetTickCount64, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetSystemTimeAsFileTime, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetSystemTimePreciseAsFileTime, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetSystemTime, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(GetLocalTime, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(QueryPerformanceCounter, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(_time64, kCRuntime, CannotFail);

// Handles and libraries
SIMULATOR_FUNCTION(CreateEventW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CreateMutexW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CreateSemaphoreW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CreateThread, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(ResumeThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(SuspendThread, "KERNEL32.dll", ReturnsMinusOne);
SIMULATOR_FUNCTION(TerminateThread, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(EnterCriticalSection, "KERNEL32.dll", CannotFail);
SIMULATOR_FUNCTION(OpenThread, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(OpenProcess, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(OpenProcessToken, "ADVAPI32.dll", ReturnsZero);
SIMULATOR_FUNCTION(DuplicateHandle, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(CloseHandle, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(_beginthreadex, kCRuntime, SetsErrno);
SIMULATOR_FUNCTION(LoadLibraryW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(LoadLibraryA, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(LoadLibraryExW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetModuleHandleW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(GetModuleHandleExW, "KERNEL32.dll", ReturnsZero);
SIMULATOR_FUNCTION(FreeLibrary, "KERNEL32.dll", ReturnsZero);

}  // namespace Simulator::System

namespace Simulator {

class FunctionSet;

/// Journal and faults for the registry functions above, for the file functions, and for those that start and end
/// threads.
void InstallRegistry(FunctionSet &functions);
void InstallFiles(FunctionSet &functions);
void InstallThreads(FunctionSet &functions);

}  // namespace Simulator
