// The callout driver's service and INF file, whose sections the installation runs, too. Compiled as a part of
// WindowsDriverInstaller.cpp.
#include "CDriverUninstallerThread.h"

#include <windows.h>
#include <wx/file.h>
#include <wx/filename.h>
#include <wx/log.h>

#include "WindowsDriverInstaller/cleanup/SetupLibrary.h"
#include "WindowsDriverInstaller/drivers/ServiceControl.h"

namespace {

/// setupapi's InstallHinfSectionW, which returns nothing.
using InstallHinfSection = void(WINAPI *)(HWND window, HINSTANCE instance, PCWSTR command, INT show);

/// compat 113: no failure in here stops the removal or shows in its result
void CDriverUninstallerThread::RemoveWfpCallout() {
    if (!StopWFPCallout(/*wait=*/true))
        wxLogError("StopWFPCallout() failed.");
    else if (!UninstallWFPCallout())
        wxLogError("UninstallWFPCallout() failed.");
}

bool CDriverUninstallerThread::UninstallWFPCallout() {
    StartStep(UninstallingWfpCalloutDriver);
    bool result = UninstallWFPCalloutWithInstallHinfSection();
    // compat 121: without its INF file the service is left alone, too
    if (result && IsWfpServiceInstalled())
        result = UninstallWFPCalloutWithSC();
    EndStep(UninstallingWfpCalloutDriver);
    return result;
}

bool CDriverUninstallerThread::UninstallWFPCalloutWithInstallHinfSection() {
    return RunCalloutInfSection("DefaultUninstall 128 ");
}

bool CDriverUninstallerThread::RunCalloutInfSection(const wxString &commandStart) {
    const wxString folder = wxFileName(wfpDriverDir, wxPATH_NATIVE).GetPath(wxPATH_GET_VOLUME);
    const wxString path = folder + "\\" + "netqbimwfp.inf";
    if (!wxFile::Exists(path)) {
        wxLogError("WFP callout INF file doesn't exist: %s", path);
        return false;
    }
    const wxString command = commandStart + path;
    wxLogVerbose("InstallHinfSectionW: executing, cmd = %s.", command);
    const SetupLibrary setup;
    InstallHinfSection installHinfSection = nullptr;
    setup.FindFunction("InstallHinfSectionW", installHinfSection);
    DbgPrint(L"InstallHinfSectionW() is at address 0x%p", reinterpret_cast<void *>(installHinfSection));
    if (installHinfSection == nullptr)
        return false;
    installHinfSection(nullptr, nullptr, command.wc_str(), 0);
    return true;
}

bool CDriverUninstallerThread::UninstallWFPCalloutWithSC() {
    return DeleteWfpService();
}

}  // namespace
