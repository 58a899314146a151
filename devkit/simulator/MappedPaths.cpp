#include "MappedPaths.h"

#include <algorithm>
#include <cwchar>

#include "AnyCase.h"
#include "CallScope.h"

namespace Simulator {

namespace {

/// Whether `path` is at or below `from`.
bool LiesAt(const wchar_t *path, const std::wstring &from) {
    const auto same = [](wchar_t a, wchar_t b) { return PathCharacter(a) == PathCharacter(b); };
    const std::size_t length = std::wcslen(path);
    if (length < from.size() || !std::equal(from.begin(), from.end(), path, same))
        return false;
    return length == from.size() || PathCharacter(path[from.size()]) == L'\\';
}

std::wstring WithoutLastSlash(std::wstring path) {
    while (!path.empty() && PathCharacter(path.back()) == L'\\')
        path.pop_back();
    return path;
}

}  // namespace

void MappedPaths::MapPath(const std::wstring &from, const std::filesystem::path &to) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_mappings.push_back({WithoutLastSlash(from), WithoutLastSlash(to.wstring())});
}

std::optional<std::wstring> MappedPaths::Mapped(const wchar_t *path) const {
    if (path == nullptr)
        return std::nullopt;
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const Mapping *best = nullptr;
    for (const Mapping &mapping : m_mappings) {
        if (LiesAt(path, mapping.from) && (best == nullptr || mapping.from.size() >= best->from.size()))
            best = &mapping;
    }
    if (best == nullptr)
        return std::nullopt;
    return best->to + (path + best->from.size());
}

}  // namespace Simulator
