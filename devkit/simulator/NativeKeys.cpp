#include "NativeKeys.h"

#include <algorithm>
#include <system_error>

#include <winternl.h>

#include "CallScope.h"
#include "Function.h"

namespace Simulator {

namespace {

// Documented for drivers; no header for programs declares them.
constexpr int kKeyNameInformation = 3;
constexpr ULONG kOpenLink = 0x100;
constexpr LONG kNotFound = static_cast<LONG>(0xC0000034);
using QueryKeyFunction = LONG(NTAPI *)(HANDLE key, int kind, void *information, ULONG size, ULONG *needed);
using OpenKeyFunction = LONG(NTAPI *)(HANDLE *key, ACCESS_MASK access, const OBJECT_ATTRIBUTES *attributes);
using CreateKeyFunction = LONG(NTAPI *)(HANDLE *key, ACCESS_MASK access, const OBJECT_ATTRIBUTES *attributes,
                                        ULONG titleIndex, const UNICODE_STRING *className, ULONG options,
                                        ULONG *disposition);
using DeleteKeyFunction = LONG(NTAPI *)(HANDLE key);

template <class F>
F Native(const char *name) {
    return reinterpret_cast<F>(reinterpret_cast<void *>(FindRealFunction("ntdll.dll", name)));
}

/// The name of a subkey, for the calls above.
class Place {
public:
    Place(HKEY parent, const std::wstring &name) {
        m_name.Buffer = const_cast<wchar_t *>(name.data());
        m_name.Length = static_cast<USHORT>(name.size() * sizeof(wchar_t));
        m_name.MaximumLength = m_name.Length;
        InitializeObjectAttributes(&m_attributes, &m_name, OBJ_CASE_INSENSITIVE | kOpenLink, parent, nullptr);
    }
    Place(const Place &) = delete;
    Place &operator=(const Place &) = delete;

    [[nodiscard]] const OBJECT_ATTRIBUTES *Get() const { return &m_attributes; }

private:
    UNICODE_STRING m_name{};
    OBJECT_ATTRIBUTES m_attributes{};
};

LONG Open(HKEY parent, const std::wstring &name, REGSAM access, UniqueKey &key) {
    static const auto open = Native<OpenKeyFunction>("NtOpenKey");
    HANDLE opened = nullptr;
    const LONG status = open(&opened, access, Place(parent, name).Get());
    key.reset(status == 0 ? static_cast<HKEY>(opened) : nullptr);
    return status;
}

}  // namespace

void KeyCloser::operator()(HKEY key) const {
    const InsideSimulator inside;
    RegCloseKey(key);
}

std::wstring NativeName(HKEY key) {
    static const auto query = Native<QueryKeyFunction>("NtQueryKey");
    ULONG needed = 0;
    (void)query(key, kKeyNameInformation, nullptr, 0, &needed);
    std::vector<ULONG> information(needed / sizeof(ULONG) + 1);  // the length of the name in bytes, and the name
    const auto size = static_cast<ULONG>(information.size() * sizeof(ULONG));
    if (needed == 0 || query(key, kKeyNameInformation, information.data(), size, &needed) != 0)
        return {};
    return {reinterpret_cast<const wchar_t *>(information.data() + 1), information.front() / sizeof(wchar_t)};
}

std::vector<std::wstring> SubkeyNames(HKEY key) {
    std::vector<std::wstring> names;
    wchar_t name[256];
    for (DWORD length = 256; RegEnumKeyExW(key, static_cast<DWORD>(names.size()), name, &length, nullptr, nullptr,
                                           nullptr, nullptr) == ERROR_SUCCESS;
         length = 256)
        names.emplace_back(name, length);
    std::sort(names.begin(), names.end());
    return names;
}

UniqueKey OpenBelow(HKEY parent, const std::wstring &name, REGSAM access) {
    UniqueKey key;
    (void)Open(parent, name, access, key);
    return key;
}

UniqueKey CreateBelow(HKEY parent, const std::wstring &name, DWORD options) {
    static const auto create = Native<CreateKeyFunction>("NtCreateKey");
    HANDLE made = nullptr;
    const LONG status = create(&made, KEY_ALL_ACCESS, Place(parent, name).Get(), 0, nullptr, options, nullptr);
    if (status != 0)
        throw std::system_error(status, std::system_category(), "NtCreateKey");
    return UniqueKey(static_cast<HKEY>(made));
}

LONG DeleteBelow(HKEY parent, const std::wstring &name) {
    static const auto deleteKey = Native<DeleteKeyFunction>("NtDeleteKey");
    UniqueKey key;
    const LONG status = Open(parent, name, KEY_READ | DELETE, key);
    if (status != 0)
        return status == kNotFound ? 0 : status;
    for (const std::wstring &below : SubkeyNames(key.get())) {
        const LONG stays = DeleteBelow(key.get(), below);
        if (stays != 0)
            return stays;
    }
    return deleteKey(key.get());
}

}  // namespace Simulator
