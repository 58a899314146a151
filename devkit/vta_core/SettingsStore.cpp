#include "SettingsStore.h"

#include <new>
#include <optional>

#include "Handle.h"
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
    return WriteFile(file.get(), content.data(), static_cast<DWORD>(content.size()), &written, nullptr) &&
           written == content.size();
}

/// The object that the whole text stands for, or null.
Json ParseObject(const std::string &text) {
    const char *end = nullptr;
    Json root(cJSON_ParseWithOpts(text.c_str(), &end, 1));
    const bool whole = root && end == text.c_str() + text.size();
    return whole && cJSON_IsObject(root.get()) ? std::move(root) : nullptr;
}

bool KeepAside(const wxString &path) {
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
        std::string content;
        const FileState state = ReadWholeFile(m_path, content);
        if (state == FileState::Read)
            m_root = ParseObject(content);
        if (!m_root && state != FileState::Missing && !KeepAside(m_path))
            m_path.clear();
    }
    if (!m_root)
        m_root = Checked(cJSON_CreateObject());
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
    cJSON_DeleteItemFromObjectCaseSensitive(m_root.get(), key.c_str());
    if (cJSON_AddItemToObject(m_root.get(), key.c_str(), value.get()))
        (void)value.release();  // the object owns it now
    Save();
}

void SettingsStore::Save() const {
    if (m_path.empty())
        return;
    const JsonText json(cJSON_Print(m_root.get()));
    if (!json)
        return;
    const wxString temporary = m_path + ".new";
    if (!WriteWholeFile(temporary, json.get()) ||
        !MoveFileExW(temporary.wc_str(), m_path.wc_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH))
        DeleteFileW(temporary.wc_str());
}

}  // namespace VtaCore
