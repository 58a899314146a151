---@meta fc
-- The module's functions for editors with a Lua language server: completion, hover texts, and warnings about wrong
-- arguments. Put this folder into the server's setting `Lua.workspace.library`. It is never run by the agent.
-- docs/lua-functions.md describes each function in full.

---The table that the agent's modules share. `require "fc"` leaves the functions in `SLB.filter`.
SLB = {}

---The agent's central object. Functions of this module take it as it is, not as const.
---@class SLB.Dom : userdata

---The stream of a diagnostic package.
---@class SLB.wx.ZipOutputStream : userdata

---A way to the driver: a userdata of the type `vti_handle_t*`, opened and closed by another module of the agent.
---@class fc.DriverHandle : userdata

---A kind of connections. Lines of the text that are not named here are strings.
---@class fc.ConnMetricsRow
---@field count integer connections of this kind, in 32 bits
---@field flags? integer
---@field pid? integer
---@field dst_port? integer
---@field tls_version? integer
---@field cipher? integer
---@field container_type? integer
---@field cf_ssl_connection? 0|1 bit 0 of `flags`
---@field cf_udp_connection? 0|1 bit 1
---@field cf_outbound_connection? 0|1 bit 2
---@field cf_rsa_key_imported? 0|1 bit 3
---@field cf_nuagent_key_imported? 0|1 bit 4
---@field cf_do_dpi? 0|1 bit 5
---@field cf_nuagent_key_not_found? 0|1 bit 6
---@field cf_nuagent_key_error? 0|1 bit 7
---@field cf_start_tls? 0|1 bit 8
---@field cf_nuagent_fail_open? 0|1 bit 9
---@field cf_nuagent_throttled? 0|1 bit 10
---@field cf_nuagent_banned? 0|1 bit 11
---@field [string] string|integer

---@class fc.HealthResult
---@field action 0|1|2|5|6|7 well, fail-open, off, not sampled, wrong argument, no memory figures

---Item 1 to 6 have the first three fields, item 7 has the last one.
---@class fc.HealthMetric
---@field name? "rqpct"|"refusalpct"|"estab"|"scanmb"|"frepct"|"delta_t"
---@field value? integer
---@field threshold? integer
---@field cpu_count? integer

---@class fc.filter
SLB.filter = {}

---Counts connections of a kind. Not from two threads at a time.
---@param key string connections with equal keys are one kind; in ASCII, or in the system's code page
---@param text string lines of name, tab, value; kept from the first call for the key
---@param count number its integer part counts, in 32 bits; 0 does nothing
function SLB.filter.AddToConnMetrics(key, text, count) end

---Puts what was added into the result, if more than 60 seconds have passed since the last time.
function SLB.filter.UpdateConnMetrics() end

---Hands over the result, which is empty afterwards. If it raises an error, the result stays.
---@return fc.ConnMetricsRow[] rows in the order of the keys
function SLB.filter.GetConnMetrics() end

---One iteration of the health check. A wrong argument gives `action` 6. An error is raised only if Lua has no memory
---for the result, or a finalizer that runs meanwhile raises one: the iteration has been made then. Blocks for at least
---100 ms, but not with `action` 2 and 6; 5 may come at once, too. `action` 2 clears the wait of the fail-open, in
---"Activated", too.
---@param dom SLB.Dom
---@param state "Activated"|"Deactivated" whether the filter is in fail-open
---@param cloud_config string the policy as JSON; "" for the local configuration file
---@return fc.HealthResult result
---@nodiscard
function SLB.filter.CheckSystemHealthMetrics(dom, state, cloud_config) end

---The last evaluated iteration. An error is raised only if Lua has no memory for the tables, or a finalizer that runs
---meanwhile raises one.
---@return true ok
---@return fc.HealthMetric[] metrics seven of them
---@nodiscard
function SLB.filter.GetSysHealthMetrics() end

---False before the first iteration and after one whose `action` was 2.
---@return boolean enabled
---@nodiscard
function SLB.filter.GetSysHealthEnabled() end

---The port that the last configuration monitors.
---@return boolean monitored
---@return integer port 0 where there is none
---@nodiscard
function SLB.filter.GetScanMetricPort() end

---Ties the trace of the driver library to the agent's trace log, under the component `VTI`.
---@param handle fc.DriverHandle
function SLB.filter.setup_qbtrace(handle) end

---Puts the state of the drivers into a diagnostic package. Event 1001 reports each failure of the driver library, and
---statistics in another layout.
---@param dom SLB.Dom
---@param handle fc.DriverHandle an open one
---@param zip SLB.wx.ZipOutputStream stays open
---@return true added
function SLB.filter.AddDriverDiagnostics(dom, handle, zip) end

---Whether the driver was checked, as a script has stored it.
---@return integer number -1 if none has
---@nodiscard
function SLB.filter.GetDriverCheckedFromReg() end

---@param number number its integer part is stored, in 32 bits
---@return number last the argument
function SLB.filter.SetDriverCheckedToReg(number) end

---Whether the driver was hooked, as a script has stored it.
---@return integer number -1 if none has
---@nodiscard
function SLB.filter.GetDriverHookedFromReg() end

---@param number number its integer part is stored, in 32 bits
---@return number last the argument
function SLB.filter.SetDriverHookedToReg(number) end

---The network interfaces that are exempt from checking.
---@return string[] names
---@nodiscard
function SLB.filter.GetUncheckedIfc() end

---Stores the network interfaces that are exempt from checking. A comma parts two names.
---@param names string[]
---@return string[] last the argument
function SLB.filter.SetUncheckedIfc(names) end

---When `qbimvta` and `qbimwfp` were last stopped.
---@return integer vta -1 where it can't be read
---@return integer wfp -1 where it can't be read
---@nodiscard
function SLB.filter.GetDriverStoppedByBLPTimestamp() end

---The version in the resources of a program file; no result at all where there is none. Each number has 16 bits and a
---sign.
---@param path string
---@return integer? major
---@return integer? minor
---@return integer? build
---@return integer? revision
---@nodiscard
function SLB.filter.GetFileVersion(path) end

---Installs both drivers, or brings them to the version of the files. A newer driver is left alone, whether it runs or
---not. Agent events tell what became of it: 1004 a failure, 1007 a success, 1006 a reboot that is needed, 3005 a call
---of COM, the network configuration or the devices that failed. Failures of the callout are only in the log.
---@param dom SLB.Dom must outlive the work, which may go on after the call
---@param ndis_folder string the folder of the filter driver's files
---@param wfp_folder string the folder of the callout's files
---@return boolean ended true even if the installation failed
function SLB.filter.InstallOrUpdateDriver(dom, ndis_folder, wfp_folder) end

---Removes both drivers with everything that belongs to them. Event 3005 reports each failed call of COM, of the network
---configuration and of the devices. Failures of the callout and of INF files are only in the log.
---@param dom SLB.Dom must outlive the work, which may go on after the call
---@param ndis_folder string not used
---@param wfp_folder string the folder of the callout's files, with a backslash at its end
---@return boolean removed true even if a reboot has to finish it
function SLB.filter.UninstallDriver(dom, ndis_folder, wfp_folder) end

---Starts `qbimwfp` unless it runs.
---@param wait? boolean until it runs, for nearly 40 seconds at most
---@return boolean ok true also where it is not installed
function SLB.filter.StartWFPDriver(wait) end

---Stops `qbimwfp` if it runs.
---@param wait? boolean until it has stopped, for nearly 40 seconds at most
---@return boolean ok true also where it is not installed, or the service manager can't be opened
function SLB.filter.StopWFPDriver(wait) end

---Stops `qbimwfp` and starts it.
---@param wait? boolean for each of both, for nearly 40 seconds at most; without, the service may be left stopped
---@return boolean ok true also where it is not installed; without waiting, also where it is left stopped
function SLB.filter.RestartWFPDriver(wait) end

---Stops `qbimvta` if it runs.
---@param wait? boolean until it has stopped, for nearly 40 seconds at most
---@return boolean ok true also where it is not installed, or the service manager can't be opened
function SLB.filter.StopNDISDriver(wait) end

---Starts `qbimvta` unless it runs.
---@param wait? boolean until it runs, for nearly 40 seconds at most
---@return boolean ok true also where it is not installed
function SLB.filter.StartNDISDriver(wait) end

---Stops `qbimvta` and starts it.
---@param wait? boolean for each of both, for nearly 40 seconds at most; without, the service may be left stopped
---@return boolean ok true also where it is not installed; without waiting, also where it is left stopped
function SLB.filter.RestartNDISDriver(wait) end

---Turns on what `DisableNativeFirewall` has turned off. A failure is only traced, under `FC-WFW`; the next call tries
---again. A remembered value of zero or of another type is removed without turning anything on, but only when COM and
---the firewall's objects were had; one that is longer than four bytes is removed at once. A thread in a multithreaded
---COM apartment loses one initialisation of COM for each call that reached it.
---@return 0 result
function SLB.filter.EnableNativeFirewall() end

---Turns off the profiles of the system's firewall that are on, and remembers them. A failure is only traced, under
---`FC-WFW`. COM is as with `EnableNativeFirewall`.
---@return 0 result
function SLB.filter.DisableNativeFirewall() end

---Puts a program on the list of authorised applications of the current profile. Both texts are UTF-8 and end at the
---first zero byte; what is neither a string nor a number counts as empty. A thread in a multithreaded COM apartment
---loses one initialisation of COM for each failed call that reached it.
---@param path string|number the full path of the program's file; not empty
---@param name string|number how the list shows it; not empty, unless the program is listed and enabled
---@return boolean ok true when the program is listed and enabled
function SLB.filter.WindowsFirewallAddApp(path, name) end

---Takes a program off the list of authorised applications of the current profile. Text and COM are as with
---`WindowsFirewallAddApp`.
---@param path string|number the full path of the program's file
---@return boolean ok
function SLB.filter.WindowsFirewallRemoveApp(path) end
