// The installed parts of the simulated machine: the models, and how they are added to a set of functions.
#pragma once

#include <memory>

#include "ComLibrary.h"
#include "DeviceManager.h"
#include "FilesInUse.h"
#include "FunctionSet.h"
#include "NetworkConfiguration.h"
#include "RegistrySandbox.h"
#include "Security.h"
#include "ServiceManager.h"
#include "SetupLibrary.h"
#include "SystemFolders.h"

namespace Simulator {

/// COM, network components and devices. COM objects that outlive the simulation share it.
struct NetworkParts {
    ComLibrary com;
    std::shared_ptr<DeviceManager> devices = std::make_shared<DeviceManager>();
    std::shared_ptr<NetworkConfiguration> configuration = std::make_shared<NetworkConfiguration>(devices);
};

/// The models; null for those that were not requested.
struct InstalledParts {
    RegistrySandbox *registry = nullptr;
    SystemFolders *folders = nullptr;
    FilesInUse *filesInUse = nullptr;  ///< With the folders.
    ServiceManager *services = nullptr;
    Security *security = nullptr;
    SetupLibrary *setup = nullptr;
    NetworkParts *network = nullptr;
};

/// Simulates their functions with the models. @param parts  outlive the set.
void Install(FunctionSet &functions, const std::shared_ptr<Core> &core, const InstalledParts &parts);

}  // namespace Simulator
