// The functions of setupapi.dll for INF files.
#pragma once

#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <windows.h>
#include <setupapi.h>

#include "Function.h"
#include "Lock.h"

namespace Simulator {

class FunctionSet;
class SystemFolders;

namespace System {

SIMULATOR_FUNCTION(SetupUninstallOEMInfW, "SETUPAPI.dll", ReturnsZero);
SIMULATOR_FUNCTION(InstallHinfSectionW, "SETUPAPI.dll", CannotFail);
SIMULATOR_FUNCTION(SetupCopyOEMInfW, "SETUPAPI.dll", ReturnsZero);

}  // namespace System

/// Set the plain members before the functions are called. The others: any thread.
class SetupLibrary {
public:
    /// The error of each SetupUninstallOEMInfW.
    DWORD uninstallError = ERROR_SUCCESS;
    /// Called by InstallHinfSectionW, inside the simulator; may be empty.
    /// @param command  such as L"DefaultUninstall 128 C:\\folder\\driver.inf".
    std::function<void(const std::wstring &command)> onInstallSection;

    /// From now on SetupCopyOEMInfW fails for INF files of that name, case-insensitive.
    /// @param fileName  without a folder, such as L"driver.inf".
    /// @param error     ERROR_SUCCESS ends it.
    void FailCopy(const std::wstring &fileName, DWORD error);
    [[nodiscard]] DWORD CopyError(const std::wstring &fileName) const;

    /// From now on GetProcAddress does not find the function: ERROR_PROC_NOT_FOUND.
    /// @param function  "SetupUninstallOEMInfW" or "InstallHinfSectionW".
    void Lack(const std::string &function);
    [[nodiscard]] bool Lacks(const std::string &function) const;
    /// The commands passed to InstallHinfSectionW, in the order of the calls.
    [[nodiscard]] std::vector<std::wstring> Commands() const;

    void InstallSection(const std::wstring &command);

private:
    mutable Lock m_lock;
    std::set<std::string> m_lacking;
    std::vector<std::pair<std::wstring, DWORD>> m_copyErrors;  ///< By name; the last counts.
    std::vector<std::wstring> m_commands;
};

/// Simulates the library's functions, and GetProcAddress for those that it lacks.
/// - SetupUninstallOEMInfW removes the INF file, its .pnf and its catalogue from the folders. It requires a name
///   without a folder (else ERROR_INVALID_PARAMETER) that begins with "oem" (else ERROR_NOT_AN_INSTALLED_OEM_INF) and
///   exists (else ERROR_FILE_NOT_FOUND).
/// - SetupCopyOEMInfW copies an existing file to the folder of INF files, as oemN.inf with the lowest free N. It fails
///   with ERROR_FILE_NOT_FOUND, with ERROR_INSUFFICIENT_BUFFER if the new path does not fit, and with
///   ERROR_CALL_NOT_IMPLEMENTED without folders. Media and style have no effect.
/// - InstallHinfSectionW records its command and passes it on.
/// Also passes GetModuleHandleW through.
/// @param folders  null: there is no INF file.
/// Both outlive the set.
void InstallSetupLibrary(FunctionSet &functions, SetupLibrary &setup, const SystemFolders *folders);

}  // namespace Simulator
