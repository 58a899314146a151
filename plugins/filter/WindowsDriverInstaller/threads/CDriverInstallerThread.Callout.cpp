// The installation of the callout driver. Compiled as a part of WindowsDriverInstaller.cpp.
#include "CDriverInstallerThread.h"

namespace {

bool CDriverInstallerThread::InstallWFPCallout() {
    StartStep(InstallingWfpCalloutDriver);
    const bool result = InstallWFPCalloutWithInstallHinfSection();
    EndStep(InstallingWfpCalloutDriver);
    return result;
}

bool CDriverInstallerThread::InstallWFPCalloutWithInstallHinfSection() {
    return RunCalloutInfSection("DefaultInstall 128 ");
}

}  // namespace
