#include "SystemFolders.h"

#include <algorithm>
#include <cwchar>
#include <cwctype>
#include <system_error>

#include "CallScope.h"

namespace Simulator {

namespace {

std::filesystem::path FreshRoot() {
    static unsigned number = 0;
    wchar_t temp[MAX_PATH + 1] = L"";
    GetTempPathW(MAX_PATH + 1, temp);
    const std::wstring name = L"fc-devkit-" + std::to_wstring(GetCurrentProcessId()) + L"-" + std::to_wstring(++number);
    return std::filesystem::path(temp) / name;
}

void RemoveTree(const std::filesystem::path &root) {
    std::error_code ignored;
    // By hand, since the loop over a range steps with an operator that throws.
    for (std::filesystem::recursive_directory_iterator entry(root, ignored), end; entry != end;
         entry.increment(ignored))
        SetFileAttributesW(entry->path().c_str(), FILE_ATTRIBUTE_NORMAL);  // those that are read-only would stay
    std::filesystem::remove_all(root, ignored);
}

wchar_t Plain(wchar_t c) {
    return c == L'/' ? L'\\' : static_cast<wchar_t>(std::towlower(c));
}

/// Whether `path` is at or below `from`.
bool LiesAt(const wchar_t *path, const std::wstring &from) {
    const auto same = [](wchar_t a, wchar_t b) { return Plain(a) == Plain(b); };
    const std::size_t length = std::wcslen(path);
    if (length < from.size() || !std::equal(from.begin(), from.end(), path, same))
        return false;
    return length == from.size() || Plain(path[from.size()]) == L'\\';
}

std::wstring WithoutLastSlash(std::wstring path) {
    while (!path.empty() && Plain(path.back()) == L'\\')
        path.pop_back();
    return path;
}

}  // namespace

SystemFolders::SystemFolders() {
    const InsideSimulator inside;
    m_root = FreshRoot();
    RemoveTree(m_root);  // left by a process that had this number before
    for (const auto &folder : {System32() / L"drivers", ProgramData(), ProgramFiles(), Temp()})
        std::filesystem::create_directories(folder);
}

SystemFolders::~SystemFolders() {
    const InsideSimulator inside;
    RemoveTree(m_root);
}

void SystemFolders::MapPath(const std::wstring &from, const std::filesystem::path &to) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_mappings.push_back({WithoutLastSlash(from), WithoutLastSlash(to.wstring())});
}

std::optional<std::wstring> SystemFolders::Mapped(const wchar_t *path) const {
    if (path == nullptr)
        return std::nullopt;
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const Mapping *best = nullptr;
    for (const Mapping &mapping : m_mappings) {
        if (LiesAt(path, mapping.from) && (best == nullptr || mapping.from.size() > best->from.size()))
            best = &mapping;
    }
    if (best == nullptr)
        return std::nullopt;
    return best->to + (path + best->from.size());
}

}  // namespace Simulator
