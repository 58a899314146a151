// Agent events of an installation.
#pragma once

constexpr int kInstallFailedEvent = 1004;
constexpr int kUpgradeEvent = 1005;
constexpr int kRebootRequiredEvent = 1006;
constexpr int kInstalledEvent = 1007;
