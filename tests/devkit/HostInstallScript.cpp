#include "HostInstallScript.h"

namespace {

const std::string kInstallPrelude = R"(
        local machine = host.machine
        local E, W = [[PCI\VEN_8086&DEV_100E\1]], [[PCI\VEN_14E4&DEV_43A0\1]]
        local function adapter(node)
            for _, found in ipairs(machine.adapters()) do
                if found.node == node then return found end
            end
        end
        local function bound(node)
            return table.concat(adapter(node).bound, " ")
        end
        local function ship(version)
            machine.write_driver(machine.folders().program_files .. "qbimvta.sys", version)
            machine.put_installable { id = "qbimvta", loads = version }
        end
        local function ready(version)
            local folder = machine.folders().program_files
            machine.put_component { id = "ms_tcpip", class = "protocol" }
            machine.put_adapter { node = E, name = "Ethernet", ip = "192.0.2.10", gateway = "192.0.2.1" }
            machine.put_adapter { node = W, name = "Wi-Fi", ip = "198.51.100.7", gateway = "198.51.100.1" }
            machine.bind(E, "ms_tcpip")
            machine.bind(W, "ms_tcpip")
            write(folder .. "netqbimvta.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
            write(folder .. "netqbimwfp.inf", "[DefaultInstall.Services]\r\nAddService = qbimwfp,2,callout\r\n" ..
                "[DefaultUninstall.Services]\r\nDelService = qbimwfp\r\n")
            host.driver.present = false
            ship(version)
            require "fc"
        end
        local function install()
            local folder = machine.folders().program_files
            assert(SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder))
            local texts, reboots = {}, 0
            for _, event in ipairs(host.events()) do
                if event.kind == "event" then texts[event.number] = event.text end
                if event.kind == "reboot" then reboots = reboots + 1 end
            end
            return texts, reboots
        end
        local function remove()
            local folder = machine.folders().program_files
            return SLB.filter.UninstallDriver(host.dom(), folder, folder)
        end
        local function last()
            local all = host.installations()
            return all[#all]
        end
    )";

}  // namespace

HostRun RunInstallScript(const std::string &script, const std::vector<std::wstring> &options,
                         const std::vector<std::wstring> &clock) {
    std::vector<std::wstring> all = options;
    all.insert(all.end(), clock.begin(), clock.end());
    return RunPassingScript(kScriptHelpers + kInstallPrelude + script, all);
}
