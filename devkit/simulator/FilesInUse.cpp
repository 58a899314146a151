#include "FilesInUse.h"

#include <algorithm>
#include <utility>

#include "AnyCase.h"
#include "FunctionSet.h"
#include "WindowsFunctions.h"

namespace Simulator {

namespace {

std::wstring KeyOf(const std::filesystem::path &file) {
    std::wstring key = file.lexically_normal().wstring();
    std::transform(key.begin(), key.end(), key.begin(), &PathCharacter);
    return key;
}

std::wstring TextOf(const wchar_t *path) {
    return path == nullptr ? std::wstring() : path;
}

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

}  // namespace

void FilesInUse::Hold(const std::filesystem::path &file, DWORD error) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_held[KeyOf(file)] = error;
}

void FilesInUse::Release(const std::filesystem::path &file) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_held.erase(KeyOf(file));
}

DWORD FilesInUse::ErrorOf(const std::filesystem::path &file) const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    const auto found = m_held.find(KeyOf(file));
    return found == m_held.end() ? ERROR_SUCCESS : found->second;
}

void FilesInUse::LeaveToBoot(MoveAtBoot move) {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    m_leftToBoot.push_back(std::move(move));
}

std::vector<MoveAtBoot> FilesInUse::LeftToBoot() const {
    const InsideSimulator inside;
    const LockGuard guard(m_lock);
    return m_leftToBoot;
}

std::size_t FilesInUse::CountLeftToBoot() const {
    const LockGuard guard(m_lock);
    return m_leftToBoot.size();
}

void FilesInUse::Boot() {
    const InsideSimulator inside;
    std::vector<MoveAtBoot> moves;
    {
        const LockGuard guard(m_lock);
        m_held.clear();
        moves.swap(m_leftToBoot);
    }
    for (const MoveAtBoot &move : moves) {
        if (!move.to.empty())
            (void)MoveFileExW(move.from.c_str(), move.to.c_str(), MOVEFILE_REPLACE_EXISTING);
        else if (!DeleteFileW(move.from.c_str()))
            (void)RemoveDirectoryW(move.from.c_str());
    }
}

void InstallFilesInUse(FunctionSet &functions, FilesInUse &files) {
    functions.Put<System::DeleteFileW>([&files](const auto &next, const wchar_t *path) {
        const DWORD error = files.ErrorOf(TextOf(path));
        return error == ERROR_SUCCESS ? next(path) : Fail(error);
    });
    functions.Put<System::MoveFileExW>([&files](const auto &next, const wchar_t *from, const wchar_t *to, DWORD flags) {
        if ((flags & MOVEFILE_DELAY_UNTIL_REBOOT) != 0) {
            if (from == nullptr)
                return Fail(ERROR_INVALID_PARAMETER);
            files.LeaveToBoot({from, TextOf(to)});
            return TRUE;
        }
        const DWORD error = files.ErrorOf(TextOf(from));
        return error == ERROR_SUCCESS ? next(from, to, flags) : Fail(error);
    });
}

}  // namespace Simulator
