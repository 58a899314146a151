// A private registry: the real functions on a separate tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "NativeKeys.h"

namespace Simulator {

/// While it exists, HKEY_LOCAL_MACHINE and HKEY_CURRENT_USER of the whole process are two empty keys below the real
/// HKEY_CURRENT_USER\Software\fc-devkit\<process id>-<number>. The destructor removes them; those of a killed process
/// are removed when another sandbox is created. Keys that were opened before stay where they are. One at a time.
///
/// `root` is one of the two. Paths have no backslash at either end; an empty one means the root itself. An empty name
/// is a key's default value. The helpers are not recorded, counted or made to fail.
class RegistrySandbox {
public:
    /// @throws std::system_error  if the real registry does not allow it.
    RegistrySandbox();
    ~RegistrySandbox();
    RegistrySandbox(const RegistrySandbox &) = delete;
    RegistrySandbox &operator=(const RegistrySandbox &) = delete;

    /// These create the key, and throw std::system_error on failure.
    void PutKey(HKEY root, const std::wstring &path);
    void PutDword(HKEY root, const std::wstring &path, const std::wstring &name, DWORD value);
    void PutText(HKEY root, const std::wstring &path, const std::wstring &name, const std::wstring &value,
                 DWORD type = REG_SZ);
    void PutTexts(HKEY root, const std::wstring &path, const std::wstring &name,
                  const std::vector<std::wstring> &values);
    /// Any type; stores `bytes` unchanged.
    void PutBytes(HKEY root, const std::wstring &path, const std::wstring &name, DWORD type,
                  const std::vector<std::uint8_t> &bytes);
    /// Creates a key whose name may contain zeros. The functions below that take a path do not support such names.
    void PutKeyNamed(HKEY root, const std::wstring &above, const std::wstring &name);
    /// Creates a symbolic link. @param target  a path below the same root, which need not exist.
    void PutLink(HKEY root, const std::wstring &path, const std::wstring &target);
    /// Removes a key with all subkeys, if it exists. Links are removed, and never followed.
    void Remove(HKEY root, const std::wstring &path);

    [[nodiscard]] bool HasKey(HKEY root, const std::wstring &path) const;
    /// Empty if the value is missing or of another type.
    [[nodiscard]] std::optional<DWORD> Dword(HKEY root, const std::wstring &path, const std::wstring &name) const;
    /// Of REG_SZ and REG_EXPAND_SZ, unexpanded.
    [[nodiscard]] std::optional<std::wstring> Text(HKEY root, const std::wstring &path, const std::wstring &name) const;

    /// The contents of a key as UTF-8 text for comparison, sorted: a line "[path]" for each key, and one for each of
    /// its values, such as: "name" dword 17, "name" text "abc", "name" type 3: 01 02 ff. Links are not followed: a link
    /// is a line "[path] -> target"; a zero in a name is written as \0.
    [[nodiscard]] std::string Tree(HKEY root, const std::wstring &path = {}) const;

    /// The key that replaces HKEY_LOCAL_MACHINE.
    [[nodiscard]] HKEY MachineRoot() const { return m_machineRoot.get(); }
    /// The tree's path in the real registry, below HKEY_CURRENT_USER\Software.
    [[nodiscard]] const std::wstring &RealPath() const { return m_path; }

private:
    /// The key that replaces a predefined one, which the functions of NativeKeys.h do not know.
    [[nodiscard]] HKEY KeyOf(HKEY root) const;

    std::wstring m_path;
    UniqueKey m_software;  ///< The user's real one, opened before the root was replaced.
    UniqueKey m_machineRoot;
    UniqueKey m_userRoot;
};

}  // namespace Simulator
