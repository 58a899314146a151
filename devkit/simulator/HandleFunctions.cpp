// Counts what functions create and release: handles, file searches, views, keys, libraries, files, performance queries,
// service handles, SIDs and access lists.
#include "Balance.h"

#include "FunctionSet.h"
#include "MachineFunctions.h"
#include "SecurityFunctions.h"
#include "ServiceFunctions.h"
#include "WindowsFunctions.h"

namespace Simulator {

void InstallMemoryFunctions(FunctionSet &functions);

namespace {

template <class T>
std::uintptr_t Word(T value) {
    if constexpr (std::is_pointer_v<T>)
        return reinterpret_cast<std::uintptr_t>(value);
    else
        return static_cast<std::uintptr_t>(value);
}

/// The predefined keys are never closed.
bool IsPredefined(HKEY key) {
    return (Word(key) & 0x80000000U) != 0;
}

/// Functions that return what they create.
template <class F>
void CountReturned(FunctionSet &functions, Balance &balance, const char *kind) {
    functions.Put<F>(
        [&balance, kind](const auto &next, auto... arguments) {
            const auto made = next(arguments...);
            if (F::Failure::Succeeded(made))
                balance.Opened(kind, Word(made), F::name);
            return made;
        },
        Depth::Watch);
}

/// Functions that release their argument. It is removed from the balance first: afterwards its value may already belong
/// to another.
template <class F>
void CountGivenBack(FunctionSet &functions, Balance &balance, const char *kind) {
    functions.Put<F>(
        [&balance, kind](const auto &next, auto made) {
            const bool known = balance.Closed(kind, Word(made));
            const auto result = next(made);
            if (known && !F::Failure::Succeeded(result))
                balance.Opened(kind, Word(made), F::name);
            return result;
        },
        Depth::Watch);
}

void CountHandles(FunctionSet &functions, Balance &balance) {
    CountReturned<System::CreateEventW>(functions, balance, Kind::kHandle);
    CountReturned<System::CreateMutexW>(functions, balance, Kind::kHandle);
    CountReturned<System::CreateSemaphoreW>(functions, balance, Kind::kHandle);
    CountReturned<System::CreateFileW>(functions, balance, Kind::kHandle);
    CountReturned<System::CreateFileMappingW>(functions, balance, Kind::kHandle);
    CountReturned<System::CreateThread>(functions, balance, Kind::kHandle);
    CountReturned<System::OpenThread>(functions, balance, Kind::kHandle);
    CountReturned<System::OpenProcess>(functions, balance, Kind::kHandle);
    CountReturned<System::_beginthreadex>(functions, balance, Kind::kHandle);
    functions.Put<System::OpenProcessToken>(
        [&balance](const auto &next, HANDLE process, DWORD access, HANDLE *token) {
            const BOOL opened = next(process, access, token);
            if (opened)
                balance.Opened(Kind::kHandle, Word(*token), System::OpenProcessToken::name);
            return opened;
        },
        Depth::Watch);
    functions.Put<System::DuplicateHandle>(
        [&balance](const auto &next, HANDLE from, HANDLE handle, HANDLE to, HANDLE *copy, auto... rest) {
            const BOOL done = next(from, handle, to, copy, rest...);
            if (done && copy != nullptr && to == GetCurrentProcess())
                balance.Opened(Kind::kHandle, Word(*copy), System::DuplicateHandle::name);
            return done;
        },
        Depth::Watch);
    CountGivenBack<System::CloseHandle>(functions, balance, Kind::kHandle);
    CountReturned<System::FindFirstFileW>(functions, balance, Kind::kFind);
    CountGivenBack<System::FindClose>(functions, balance, Kind::kFind);
    CountReturned<System::MapViewOfFile>(functions, balance, Kind::kView);
    CountGivenBack<System::UnmapViewOfFile>(functions, balance, Kind::kView);
}

void CountKeys(FunctionSet &functions, Balance &balance) {
    const auto count = [&balance](LSTATUS status, const HKEY *key, const char *function) {
        if (status == ERROR_SUCCESS && !IsPredefined(*key))
            balance.Opened(Kind::kKey, Word(*key), function);
        return status;
    };
    functions.Put<System::RegOpenKeyExW>(
        [count](const auto &next, HKEY parent, LPCWSTR path, DWORD options, REGSAM access, HKEY *key) {
            return count(next(parent, path, options, access, key), key, System::RegOpenKeyExW::name);
        },
        Depth::Watch);
    functions.Put<System::RegCreateKeyExW>(
        [count](const auto &next, HKEY parent, LPCWSTR path, DWORD reserved, LPWSTR type, DWORD options, REGSAM access,
                auto *security, HKEY *key, DWORD *disposition) {
            return count(next(parent, path, reserved, type, options, access, security, key, disposition), key,
                         System::RegCreateKeyExW::name);
        },
        Depth::Watch);
    functions.Put<System::RegOpenKeyW>(
        [count](const auto &next, HKEY parent, LPCWSTR path, HKEY *key) {
            return count(next(parent, path, key), key, System::RegOpenKeyW::name);
        },
        Depth::Watch);
    functions.Put<System::RegCreateKeyW>(
        [count](const auto &next, HKEY parent, LPCWSTR path, HKEY *key) {
            return count(next(parent, path, key), key, System::RegCreateKeyW::name);
        },
        Depth::Watch);
    functions.Put<System::RegConnectRegistryW>(
        [count](const auto &next, LPCWSTR machine, HKEY root, HKEY *key) {
            return count(next(machine, root, key), key, System::RegConnectRegistryW::name);
        },
        Depth::Watch);
    CountGivenBack<System::RegCloseKey>(functions, balance, Kind::kKey);
}

void CountLibraries(FunctionSet &functions, Balance &balance) {
    CountReturned<System::LoadLibraryW>(functions, balance, Kind::kLibrary);
    CountReturned<System::LoadLibraryA>(functions, balance, Kind::kLibrary);
    CountReturned<System::LoadLibraryExW>(functions, balance, Kind::kLibrary);
    functions.Put<System::GetModuleHandleExW>(
        [&balance](const auto &next, DWORD flags, LPCWSTR name, HMODULE *module) {
            const BOOL found = next(flags, name, module);
            if (found && (flags & GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT) == 0)
                balance.Opened(Kind::kLibrary, Word(*module), System::GetModuleHandleExW::name);
            return found;
        },
        Depth::Watch);
    CountGivenBack<System::FreeLibrary>(functions, balance, Kind::kLibrary);
}

void CountFiles(FunctionSet &functions, Balance &balance) {
    CountReturned<System::fopen>(functions, balance, Kind::kFile);
    CountReturned<System::_wfopen>(functions, balance, Kind::kFile);
    functions.Put<System::fopen_s>(
        [&balance](const auto &next, FILE **file, const char *path, const char *mode) {
            const errno_t error = next(file, path, mode);
            if (error == 0)
                balance.Opened(Kind::kFile, Word(*file), System::fopen_s::name);
            return error;
        },
        Depth::Watch);
    CountGivenBack<System::fclose>(functions, balance, Kind::kFile);
}

void CountQueries(FunctionSet &functions, Balance &balance) {
    functions.Put<System::PdhOpenQueryW>(
        [&balance](const auto &next, LPCWSTR source, DWORD_PTR user, PDH_HQUERY *query) {
            const PDH_STATUS status = next(source, user, query);
            if (status == ERROR_SUCCESS)
                balance.Opened(Kind::kQuery, Word(*query), System::PdhOpenQueryW::name);
            return status;
        },
        Depth::Watch);
    CountGivenBack<System::PdhCloseQuery>(functions, balance, Kind::kQuery);
}

void CountServices(FunctionSet &functions, Balance &balance) {
    CountReturned<System::OpenSCManagerW>(functions, balance, Kind::kService);
    CountReturned<System::OpenServiceW>(functions, balance, Kind::kService);
    CountGivenBack<System::CloseServiceHandle>(functions, balance, Kind::kService);
}

/// Of local memory only the access lists: other functions that allocate it are not watched.
void CountSecurity(FunctionSet &functions, Balance &balance) {
    functions.Put<System::AllocateAndInitializeSid>(
        [&balance](const auto &next, SID_IDENTIFIER_AUTHORITY *authority, BYTE count, DWORD s0, DWORD s1, DWORD s2,
                   DWORD s3, DWORD s4, DWORD s5, DWORD s6, DWORD s7, PSID *sid) {
            const BOOL made = next(authority, count, s0, s1, s2, s3, s4, s5, s6, s7, sid);
            if (made)
                balance.Opened(Kind::kSid, Word(*sid), System::AllocateAndInitializeSid::name);
            return made;
        },
        Depth::Watch);
    CountGivenBack<System::FreeSid>(functions, balance, Kind::kSid);
    functions.Put<System::SetEntriesInAclW>(
        [&balance](const auto &next, ULONG count, EXPLICIT_ACCESS_W *entries, ACL *old, ACL **list) {
            const DWORD error = next(count, entries, old, list);
            if (error == ERROR_SUCCESS && *list != nullptr)
                balance.Opened(Kind::kLocalMemory, Word(*list), System::SetEntriesInAclW::name);
            return error;
        },
        Depth::Watch);
    CountGivenBack<System::LocalFree>(functions, balance, Kind::kLocalMemory);
}

}  // namespace

void InstallBalance(FunctionSet &functions, Balance &balance) {
    InstallMemoryFunctions(functions);
    CountHandles(functions, balance);
    CountKeys(functions, balance);
    CountLibraries(functions, balance);
    CountFiles(functions, balance);
    CountQueries(functions, balance);
    CountServices(functions, balance);
    CountSecurity(functions, balance);
}

}  // namespace Simulator
