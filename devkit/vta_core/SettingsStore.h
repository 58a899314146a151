// The settings of a CDom: a JSON object, in a file or in memory only.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include <cJSON.h>
#include <wx/string.h>

#include "Handle.h"

namespace VtaCore {

struct JsonDeleter {
    void operator()(cJSON *json) const { cJSON_Delete(json); }
};
using Json = std::unique_ptr<cJSON, JsonDeleter>;

/// Flags are JSON booleans, texts JSON strings; values of other types in the file stay until they are replaced. Keys
/// are UTF-8 and case-sensitive. Any thread.
class SettingsStore {
public:
    /// @param path  the file, replaced atomically at every change; empty: memory only. A change keeps what other stores
    ///   have changed in the file meanwhile, and they read it at their next change. A file without a readable store is
    ///   renamed to "PATH.broken" ("PATH.2.broken" and so on if such a file exists) and the store starts empty. A
    ///   folder, and a file that cannot be renamed either, is not changed, and the store is in memory only.
    explicit SettingsStore(const wxString &path);

    /// Why the file contains no store; empty if it does, or if there is no file.
    static wxString Fault(const wxString &path);

    /// Why the file lacks a stored value, as from GetLastError; 0 if it is complete.
    DWORD Error() const;

    /// @return false if there is no such key or its text is none of true, 1, false, 0; `flag` is unchanged then.
    bool GetFlag(const std::string &key, bool &flag) const;
    void SetFlag(const std::string &key, bool flag);

    /// The text; "true" or "false" for a flag; empty when there is no such key.
    wxString GetText(const std::string &key) const;
    void SetText(const std::string &key, const wxString &text);

private:
    void Put(const std::string &key, Json value);
    void TakeChangesOfOthers();
    DWORD Save() const;

    mutable std::mutex m_mutex;
    wxString m_path;
    Handle m_changing;  ///< Shared by all stores on the file; null without a file.
    Json m_root;
    DWORD m_error = 0;
};

}  // namespace VtaCore
