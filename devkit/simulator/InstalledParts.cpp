#include "InstalledParts.h"

#include "AdapterDevices.h"
#include "IpHelper.h"
#include "WindowsFunctions.h"

namespace Simulator {

void Install(FunctionSet &functions, const std::shared_ptr<Core> &core, const InstalledParts &parts) {
    if (parts.registry != nullptr)
        InstallRegistry(functions);
    if (parts.folders != nullptr) {
        InstallFiles(functions);
        InstallFilesInUse(functions, *parts.filesInUse);
        InstallFolders(functions, *parts.folders);
    }
    if (parts.services != nullptr)
        InstallServices(functions, *parts.services);
    if (parts.security != nullptr)
        InstallSecurity(functions, *parts.security);
    if (parts.security != nullptr && parts.registry != nullptr)
        InstallProtectedKeys(functions, *parts.security, *parts.registry);
    if (parts.setup != nullptr)
        InstallSetupLibrary(functions, *parts.setup, parts.folders);
    if (parts.network != nullptr) {
        InstallCom(functions, parts.network->com);
        InstallDevices(functions, parts.network->devices);
        InstallNetwork(functions, core, parts.network->com, parts.network->configuration);
        InstallIpHelper(functions, parts.network->configuration);
        InstallAdapterDevices(functions, parts.network->configuration);
    }
}

}  // namespace Simulator
