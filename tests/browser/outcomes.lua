-- Installations and removals with most outcomes, for the page about them.
local machine, folder = host.machine, host.machine.folders().program_files
local node = [[PCI\VEN_8086&DEV_100E\1]]
local function write(name, text)
    local file = assert(io.open(folder .. name, "wb"))
    file:write(text)
    file:close()
end
local function ship(version, results)
    machine.write_driver(folder .. "qbimvta.sys", version)
    machine.put_installable { id = "qbimvta", loads = version, results = results }
end
local function install() SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder) end
local function remove() SLB.filter.UninstallDriver(host.dom(), folder, folder) end
machine.put_component { id = "ms_tcpip", class = "protocol" }
machine.put_adapter { node = node, name = "Ethernet", ip = "192.0.2.10", gateway = "192.0.2.1" }
machine.bind(node, "ms_tcpip")
write("netqbimvta.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
write("netqbimwfp.inf", "[DefaultInstall.Services]\r\nAddService = qbimwfp,2,callout\r\n")
host.driver.present = false
require "fc"
ship "2.0.0.0"
install() -- installed
install() -- nothing
ship("2.1.0.0", { 0x80004005, 0x80004005, 0x80004005 })
install() -- failed
host.fault { call = "ControlService", fail = 5 }
remove() -- callout left
ship("2.1.0.0", { "reboot", "reboot", "reboot" })
install() -- installed, reboot
host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
remove() -- killed
