// A registry of one's own: the real functions on a private tree.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <windows.h>

#include "NativeKeys.h"

namespace Simulator {

/// While it lives, HKEY_LOCAL_MACHINE and HKEY_CURRENT_USER of the whole process are two empty keys, which lie
/// below the real HKEY_CURRENT_USER\Software\fc-devkit\<process id>-<number>. Its end removes them. Keys that
/// were opened before keep their place. One at a time.
///
/// `root` is one of the two. Paths have no backslash at either end; an empty one means the root itself. An
/// empty name is that of a key's default value. The helpers are not recorded, counted or made to fail.
class RegistrySandbox {
public:
    /// @throws std::system_error  if the real registry does not let it.
    RegistrySandbox();
    ~RegistrySandbox();
    RegistrySandbox(const RegistrySandbox &) = delete;
    RegistrySandbox &operator=(const RegistrySandbox &) = delete;

    /// These make the key, and throw std::system_error if they cannot do their work.
    void PutKey(HKEY root, const std::wstring &path);
    void PutDword(HKEY root, const std::wstring &path, const std::wstring &name, DWORD value);
    void PutText(HKEY root, const std::wstring &path, const std::wstring &name, const std::wstring &value,
                 DWORD type = REG_SZ);
    void PutTexts(HKEY root, const std::wstring &path, const std::wstring &name,
                  const std::vector<std::wstring> &values);
    /// Any type; `bytes` as they are.
    void PutBytes(HKEY root, const std::wstring &path, const std::wstring &name, DWORD type,
                  const std::vector<std::uint8_t> &bytes);
    /// Makes a key whose name may have zeros in it. The functions below that take a path know no such names.
    void PutKeyNamed(HKEY root, const std::wstring &above, const std::wstring &name);
    /// Makes a symbolic link.
    /// @param target  where it leads: a path below the same root, which need not be there.
    void PutLink(HKEY root, const std::wstring &path, const std::wstring &target);
    /// Removes a key with all below it, if it is there. Links are removed, and never followed.
    void Remove(HKEY root, const std::wstring &path);

    [[nodiscard]] bool HasKey(HKEY root, const std::wstring &path) const;
    /// Nothing if the value is missing or of another type.
    [[nodiscard]] std::optional<DWORD> Dword(HKEY root, const std::wstring &path, const std::wstring &name) const;
    /// Of REG_SZ and REG_EXPAND_SZ, unexpanded.
    [[nodiscard]] std::optional<std::wstring> Text(HKEY root, const std::wstring &path, const std::wstring &name) const;

    /// All below a key as UTF-8 text for comparison, sorted: a line "[path]" for each key, and one for each of its
    /// values, such as: "name" dword 17, "name" text "abc", "name" type 3: 01 02 ff. Links are not followed: a link is
    /// a line "[path] -> target"; a zero in a name is written as \0.
    [[nodiscard]] std::string Tree(HKEY root, const std::wstring &path = {}) const;

    /// What stands for HKEY_LOCAL_MACHINE.
    [[nodiscard]] HKEY MachineRoot() const { return m_machineRoot.get(); }
    /// Where the tree lies in the real registry, below HKEY_CURRENT_USER\Software.
    [[nodiscard]] const std::wstring &RealPath() const { return m_path; }

private:
    /// The key that stands for a predefined one, which the functions of NativeKeys.h do not know.
    [[nodiscard]] HKEY KeyOf(HKEY root) const;

    std::wstring m_path;
    UniqueKey m_software;  ///< The user's real one, opened before the root was replaced.
    UniqueKey m_machineRoot;
    UniqueKey m_userRoot;
};

}  // namespace Simulator
