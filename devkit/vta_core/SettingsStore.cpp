#include "SettingsStore.h"

#include <algorithm>
#include <functional>
#include <new>
#include <optional>

#include "Utf8.h"

namespace VtaCore {
namespace {

constexpr int kMaxBrokenFiles = 1000;

struct JsonTextDeleter {
    void operator()(char *text) const { cJSON_free(text); }
};
using JsonText = std::unique_ptr<char, JsonTextDeleter>;

Json Checked(cJSON *json) {
    if (json == nullptr)
        throw std::bad_alloc();
    return Json(json);
}

enum class FileState { Missing, Unreadable, Read };

FileState ReadWholeFile(const wxString &path, std::string &content) {
    const Handle file(CreateFileW(path.wc_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE) {
        const DWORD error = GetLastError();
        return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? FileState::Missing
                                                                              : FileState::Unreadable;
    }
    char block[4096];
    for (;;) {
        DWORD got = 0;
        if (!ReadFile(file.get(), block, sizeof block, &got, nullptr))
            return FileState::Unreadable;
        if (got == 0)
            return FileState::Read;
        content.append(block, got);
    }
}

bool WriteWholeFile(const wxString &path, std::string_view content) {
    const Handle file(
        CreateFileW(path.wc_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (file.get() == INVALID_HANDLE_VALUE)
        return false;
    DWORD written = 0;
    if (!WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr))
        return false;
    SetLastError(ERROR_DISK_FULL);  // for a part that was not written
    return written == content.size();
}

/// The object if the whole text is one, else null.
/// @param end  where the text stops being JSON, if the result is null.
Json ParseObject(const std::string &text, const char *&end) {
    Json root(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    const bool whole = root && end == text.c_str() + text.size();
    return whole && cJSON_IsObject(root.get()) ? std::move(root) : nullptr;
}

Json ParseObject(const std::string &text) {
    const char *end = nullptr;
    return ParseObject(text, end);
}

/// Lines and columns are counted from 1.
wxString PlaceIn(const std::string &text, const char *end) {
    const std::string_view before(text.data(), static_cast<std::size_t>(end - text.c_str()));
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const std::size_t column = before.size() - (before.rfind('\n') + 1) + 1;
    return wxString::Format("line %d, column %d", static_cast<int>(line), static_cast<int>(column));
}

bool KeepAside(const wxString &path) {
    const DWORD attributes = GetFileAttributesW(path.wc_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        SetLastError(ERROR_ACCESS_DENIED);
        return false;
    }
    for (int i = 1; i <= kMaxBrokenFiles; ++i) {
        const wxString aside = path + (i == 1 ? wxString(".broken") : wxString::Format(".%d.broken", i));
        if (MoveFileExW(path.wc_str(), aside.wc_str(), 0))
            return true;
        const DWORD error = GetLastError();
        if (error != ERROR_ALREADY_EXISTS && error != ERROR_FILE_EXISTS)
            return false;
    }
    return false;
}

/// A mutex named after a hash of the file's name, which may be too long itself.
Handle MutexOf(const wxString &path) {
    std::wstring full(GetFullPathNameW(path.wc_str(), 0, nullptr, nullptr), L'\0');
    full.resize(GetFullPathNameW(path.wc_str(), static_cast<DWORD>(full.size()), full.data(), nullptr));
    CharLowerW(full.data());
    const std::wstring name = L"fc-devkit-settings-" + std::to_wstring(std::hash<std::wstring>()(full));
    return Handle(CreateMutexW(nullptr, FALSE, name.c_str()));
}

/// Holds a mutex, even one that a process abandoned, since files are replaced atomically.
class MutexGuard {
public:
    /// @param mutex  null for none.
    explicit MutexGuard(HANDLE mutex) : m_mutex(mutex) {
        if (m_mutex != nullptr)
            (void)WaitForSingleObject(m_mutex, INFINITE);
    }
    ~MutexGuard() {
        if (m_mutex != nullptr)
            (void)ReleaseMutex(m_mutex);
    }
    MutexGuard(const MutexGuard &) = delete;
    MutexGuard &operator=(const MutexGuard &) = delete;

private:
    HANDLE m_mutex;
};

std::optional<bool> FlagOfText(const wxString &text) {
    if (text == "1" || text.IsSameAs("true", false))
        return true;
    if (text == "0" || text.IsSameAs("false", false))
        return false;
    return std::nullopt;
}

wxString TextOf(const cJSON *value) {
    if (const char *text = cJSON_GetStringValue(value))
        return FromUtf8(text);
    if (value == nullptr)
        return {};
    const JsonText json(cJSON_PrintUnformatted(value));
    return json ? FromUtf8(json.get()) : wxString();
}

}  // namespace

SettingsStore::SettingsStore(const wxString &path) : m_path(path) {
    if (!m_path.empty()) {
        m_changing = MutexOf(m_path);
        const MutexGuard changing(m_changing.get());  // a file that is being replaced may look damaged
        std::string content;
        const FileState state = ReadWholeFile(m_path, content);
        if (state == FileState::Read)
            m_root = ParseObject(content);
        if (!m_root && state != FileState::Missing && !KeepAside(m_path)) {
            m_error = GetLastError();
            m_path.clear();
        }
    }
    if (!m_root)
        m_root = Checked(cJSON_CreateObject());
}

wxString SettingsStore::Fault(const wxString &path) {
    const Handle mutex = MutexOf(path);
    const MutexGuard changing(mutex.get());  // a file that is being replaced may look damaged
    std::string content;
    const FileState state = ReadWholeFile(path, content);
    if (state != FileState::Read)
        return state == FileState::Missing ? wxString() : wxString("it can't be read");
    const char *end = nullptr;
    if (ParseObject(content, end))
        return {};
    return content.empty() ? wxString("it is empty") : "it is no JSON object: near " + PlaceIn(content, end);
}

DWORD SettingsStore::Error() const {
    const std::lock_guard lock(m_mutex);
    return m_error;
}

bool SettingsStore::GetFlag(const std::string &key, bool &flag) const {
    const std::lock_guard lock(m_mutex);
    const std::optional<bool> stored = FlagOfText(TextOf(cJSON_GetObjectItemCaseSensitive(m_root.get(), key.c_str())));
    if (stored)
        flag = *stored;
    return stored.has_value();
}

void SettingsStore::SetFlag(const std::string &key, bool flag) {
    Put(key, Checked(cJSON_CreateBool(flag)));
}

wxString SettingsStore::GetText(const std::string &key) const {
    const std::lock_guard lock(m_mutex);
    return TextOf(cJSON_GetObjectItemCaseSensitive(m_root.get(), key.c_str()));
}

void SettingsStore::SetText(const std::string &key, const wxString &text) {
    Put(key, Checked(cJSON_CreateString(ToUtf8(text).c_str())));
}

void SettingsStore::Put(const std::string &key, Json value) {
    const std::lock_guard lock(m_mutex);
    const MutexGuard changing(m_changing.get());
    TakeChangesOfOthers();
    cJSON_DeleteItemFromObjectCaseSensitive(m_root.get(), key.c_str());
    if (cJSON_AddItemToObject(m_root.get(), key.c_str(), value.get()))
        (void)value.release();  // the object owns it now
    if (!m_path.empty())
        m_error = Save();
}

/// Not while the file lacks a change of this store.
void SettingsStore::TakeChangesOfOthers() {
    std::string content;
    if (m_path.empty() || m_error != 0 || ReadWholeFile(m_path, content) != FileState::Read)
        return;
    if (Json root = ParseObject(content))
        m_root = std::move(root);
}

/// @return the system error, 0 for none.
DWORD SettingsStore::Save() const {
    const JsonText json(cJSON_Print(m_root.get()));
    if (!json)
        return ERROR_NOT_ENOUGH_MEMORY;
    const wxString temporary = m_path + ".new";
    if (WriteWholeFile(temporary, json.get()) &&
        MoveFileExW(temporary.wc_str(), m_path.wc_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        return 0;
    const DWORD error = GetLastError();
    DeleteFileW(temporary.wc_str());
    return error;
}

}  // namespace VtaCore
