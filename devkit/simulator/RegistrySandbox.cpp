#include "RegistrySandbox.h"

#include <algorithm>
#include <cstring>
#include <cwchar>
#include <system_error>
#include <utility>

#include "ArgumentText.h"
#include "CallScope.h"
#include "UniqueHandle.h"

namespace Simulator {

namespace {

constexpr wchar_t kParent[] = L"fc-devkit";

void Check(LSTATUS status, const char *what) {
    if (status != ERROR_SUCCESS)
        throw std::system_error(static_cast<int>(status), std::system_category(), what);
}

UniqueKey Create(HKEY parent, const std::wstring &path) {
    HKEY key = nullptr;
    Check(RegCreateKeyExW(parent, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
          "RegCreateKeyExW");
    return UniqueKey(key);
}

/// As above; another process may delete the shared parent while it is empty, between the creation of the two.
UniqueKey CreateRoot(HKEY software, const std::wstring &path) {
    constexpr int tries = 1000;
    HKEY key = nullptr;
    LSTATUS status = ERROR_KEY_DELETED;
    for (int i = 0; i < tries && status == ERROR_KEY_DELETED; ++i)
        status = RegCreateKeyExW(software, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    Check(status, "RegCreateKeyExW");
    return UniqueKey(key);
}

UniqueKey Open(HKEY parent, const std::wstring &path) {
    HKEY key = nullptr;
    return UniqueKey(RegOpenKeyExW(parent, path.c_str(), 0, KEY_READ, &key) == ERROR_SUCCESS ? key : nullptr);
}

bool IsRunning(DWORD process) {
    const UniqueHandle opened(OpenProcess(SYNCHRONIZE, FALSE, process));
    return opened ? WaitForSingleObject(opened.get(), 0) != WAIT_OBJECT_0 : GetLastError() != ERROR_INVALID_PARAMETER;
}

/// Removes the trees of processes that were killed.
void RemoveLeftTrees(HKEY software) {
    const UniqueKey parent = OpenBelow(software, kParent, KEY_READ);
    if (!parent)
        return;
    for (const std::wstring &name : SubkeyNames(parent.get())) {
        const DWORD process = std::wcstoul(name.c_str(), nullptr, 10);
        if (process != 0 && !IsRunning(process))
            (void)DeleteBelow(parent.get(), name);
    }
}

struct Value {
    std::wstring name;
    DWORD type = REG_NONE;
    std::vector<std::uint8_t> bytes;
};

std::optional<Value> Query(HKEY root, const std::wstring &path, const std::wstring &name) {
    const UniqueKey key = Open(root, path);
    Value value{name, REG_NONE, {}};
    DWORD size = 0;
    if (!key || RegQueryValueExW(key.get(), name.c_str(), nullptr, &value.type, nullptr, &size) != ERROR_SUCCESS)
        return std::nullopt;
    value.bytes.resize(size);
    if (RegQueryValueExW(key.get(), name.c_str(), nullptr, nullptr, value.bytes.data(), &size) != ERROR_SUCCESS)
        return std::nullopt;
    return value;
}

std::wstring AsText(const std::vector<std::uint8_t> &bytes) {
    std::wstring text(bytes.size() / sizeof(wchar_t), L'\0');
    std::memcpy(text.data(), bytes.data(), text.size() * sizeof(wchar_t));
    if (!text.empty() && text.back() == L'\0')
        text.pop_back();
    return text;
}

DWORD AsDword(const std::vector<std::uint8_t> &bytes) {
    DWORD value = 0;
    std::memcpy(&value, bytes.data(), std::min(bytes.size(), sizeof value));
    return value;
}

std::vector<Value> Values(HKEY key) {
    DWORD longestName = 0;
    DWORD largest = 0;
    Check(RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, &longestName, &largest,
                           nullptr, nullptr),
          "RegQueryInfoKeyW");
    std::vector<Value> values;
    std::wstring name(longestName + 1, L'\0');
    std::vector<std::uint8_t> bytes(largest);
    for (;;) {
        DWORD length = longestName + 1;
        DWORD size = largest;
        DWORD type = REG_NONE;
        if (RegEnumValueW(key, static_cast<DWORD>(values.size()), name.data(), &length, nullptr, &type, bytes.data(),
                          &size) != ERROR_SUCCESS)
            break;
        values.push_back({name.substr(0, length), type, {bytes.begin(), bytes.begin() + size}});
    }
    std::sort(values.begin(), values.end(), [](const Value &a, const Value &b) { return a.name < b.name; });
    return values;
}

std::string Line(const Value &value) {
    std::string line = '"' + Utf8(value.name) + '"';
    if (value.type == REG_DWORD)
        return line + " dword " + std::to_string(AsDword(value.bytes)) + "\n";
    if (value.type == REG_SZ || value.type == REG_EXPAND_SZ)
        return line + (value.type == REG_SZ ? " text \"" : " expandable \"") + Utf8(AsText(value.bytes)) + "\"\n";
    constexpr char digits[] = "0123456789abcdef";
    line += " type " + std::to_string(value.type) + ":";
    for (const std::uint8_t byte : value.bytes)
        line.append({' ', digits[byte >> 4], digits[byte & 15]});
    return line + "\n";
}

/// A link's target, in the registry's own form.
std::optional<std::wstring> LinkTarget(HKEY key) {
    for (const Value &value : Values(key))
        if (value.type == REG_LINK)
            return std::wstring(reinterpret_cast<const wchar_t *>(value.bytes.data()),
                                value.bytes.size() / sizeof(wchar_t));
    return std::nullopt;
}

/// Zeros in a name are made visible.
std::string PathText(const std::wstring &path) {
    std::string text;
    for (const wchar_t character : path)
        text += character == L'\0' ? "\\0" : Utf8(std::wstring(1, character));
    return text;
}

void AppendTree(std::string &text, HKEY key, const std::wstring &path) {
    text += "[" + PathText(path) + "]";
    if (const std::optional<std::wstring> target = LinkTarget(key)) {
        text += " -> " + Utf8(*target) + "\n";
        return;
    }
    text += "\n";
    for (const Value &value : Values(key))
        text += Line(value);
    for (const std::wstring &name : SubkeyNames(key)) {
        const UniqueKey below = OpenBelow(key, name, KEY_READ);
        if (below)
            AppendTree(text, below.get(), path.empty() ? name : std::wstring(path).append(L"\\").append(name));
    }
}

/// A path without its last name, and that name.
std::pair<std::wstring, std::wstring> SplitPath(const std::wstring &path) {
    const std::size_t end = path.find_last_of(L'\\');
    return end == path.npos ? std::pair(std::wstring(), path) : std::pair(path.substr(0, end), path.substr(end + 1));
}

/// Deletes a key with all subkeys, if it exists; of a link only itself.
LONG DeleteTree(HKEY root, const std::wstring &path) {
    const auto [above, name] = SplitPath(path);
    const UniqueKey parent = Open(root, above);
    return parent ? DeleteBelow(parent.get(), name) : 0;
}

}  // namespace

RegistrySandbox::RegistrySandbox() {
    const InsideSimulator inside;
    static unsigned number = 0;
    m_path = std::wstring(kParent) + L"\\" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++number);

    HKEY software = nullptr;
    Check(RegOpenKeyExW(HKEY_CURRENT_USER, L"Software", 0, KEY_ALL_ACCESS, &software), "RegOpenKeyExW");
    m_software.reset(software);
    RemoveLeftTrees(m_software.get());
    DeleteTree(m_software.get(), m_path);  // left by an earlier process with this id
    m_machineRoot = CreateRoot(m_software.get(), m_path + L"\\machine");
    m_userRoot = CreateRoot(m_software.get(), m_path + L"\\user");
    Check(RegOverridePredefKey(HKEY_LOCAL_MACHINE, m_machineRoot.get()), "RegOverridePredefKey");
    const LSTATUS status = RegOverridePredefKey(HKEY_CURRENT_USER, m_userRoot.get());
    if (status != ERROR_SUCCESS)
        RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);  // the destructor does not run
    Check(status, "RegOverridePredefKey");
}

RegistrySandbox::~RegistrySandbox() {
    const InsideSimulator inside;
    RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    m_machineRoot.reset();
    m_userRoot.reset();
    DeleteTree(m_software.get(), m_path);
    RegDeleteKeyW(m_software.get(), kParent);  // fails while other sandboxes exist
}

HKEY RegistrySandbox::KeyOf(HKEY root) const {
    if (root == HKEY_LOCAL_MACHINE)
        return m_machineRoot.get();
    return root == HKEY_CURRENT_USER ? m_userRoot.get() : root;
}

void RegistrySandbox::PutKey(HKEY root, const std::wstring &path) {
    const InsideSimulator inside;
    Create(root, path);
}

void RegistrySandbox::PutBytes(HKEY root, const std::wstring &path, const std::wstring &name, DWORD type,
                               const std::vector<std::uint8_t> &bytes) {
    const InsideSimulator inside;
    const UniqueKey key = Create(root, path);
    // A zero that happens to follow an unterminated text would be stored with it.
    std::vector<std::uint8_t> ended = bytes;
    ended.insert(ended.end(), 2 * sizeof(wchar_t), 0xff);
    Check(RegSetValueExW(key.get(), name.c_str(), 0, type, ended.data(), static_cast<DWORD>(bytes.size())),
          "RegSetValueExW");
}

void RegistrySandbox::PutDword(HKEY root, const std::wstring &path, const std::wstring &name, DWORD value) {
    const InsideSimulator inside;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(&value);
    PutBytes(root, path, name, REG_DWORD, {bytes, bytes + sizeof value});
}

void RegistrySandbox::PutText(HKEY root, const std::wstring &path, const std::wstring &name, const std::wstring &value,
                              DWORD type) {
    const InsideSimulator inside;
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(value.c_str());
    PutBytes(root, path, name, type, {bytes, bytes + (value.size() + 1) * sizeof(wchar_t)});
}

void RegistrySandbox::PutTexts(HKEY root, const std::wstring &path, const std::wstring &name,
                               const std::vector<std::wstring> &values) {
    const InsideSimulator inside;
    std::wstring all;
    for (const std::wstring &value : values)
        all += value + L'\0';
    PutText(root, path, name, all, REG_MULTI_SZ);
}

void RegistrySandbox::PutKeyNamed(HKEY root, const std::wstring &above, const std::wstring &name) {
    const InsideSimulator inside;
    CreateBelow(Create(KeyOf(root), above).get(), name);
}

void RegistrySandbox::PutLink(HKEY root, const std::wstring &path, const std::wstring &target) {
    const InsideSimulator inside;
    const auto [above, name] = SplitPath(path);
    const UniqueKey link = CreateBelow(Create(KeyOf(root), above).get(), name, REG_OPTION_CREATE_LINK);
    const std::wstring full = NativeName(KeyOf(root)) + L"\\" + target;
    Check(RegSetValueExW(link.get(), L"SymbolicLinkValue", 0, REG_LINK, reinterpret_cast<const BYTE *>(full.data()),
                         static_cast<DWORD>(full.size() * sizeof(wchar_t))),
          "RegSetValueExW");
}

void RegistrySandbox::Remove(HKEY root, const std::wstring &path) {
    const InsideSimulator inside;
    Check(DeleteTree(KeyOf(root), path), "NtDeleteKey");
}

bool RegistrySandbox::HasKey(HKEY root, const std::wstring &path) const {
    const InsideSimulator inside;
    return Open(root, path) != nullptr;
}

std::optional<DWORD> RegistrySandbox::Dword(HKEY root, const std::wstring &path, const std::wstring &name) const {
    const InsideSimulator inside;
    const std::optional<Value> value = Query(root, path, name);
    if (!value || value->type != REG_DWORD)
        return std::nullopt;
    return AsDword(value->bytes);
}

std::optional<std::wstring> RegistrySandbox::Text(HKEY root, const std::wstring &path, const std::wstring &name) const {
    const InsideSimulator inside;
    const std::optional<Value> value = Query(root, path, name);
    if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ))
        return std::nullopt;
    return AsText(value->bytes);
}

std::string RegistrySandbox::Tree(HKEY root, const std::wstring &path) const {
    const InsideSimulator inside;
    std::string text;
    const UniqueKey key = Open(KeyOf(root), path);
    if (key)
        AppendTree(text, key.get(), path);
    return text;
}

}  // namespace Simulator
