---@meta host
-- The table `host` of fc-host, the devkit's program, for editors with a Lua language server; fc.d.lua beside it has the
-- module's functions. Scripts for the agent itself must not use it. docs/host.md describes everything in full.

---What fc-host gives scripts beside the module: the agent's side, the driver and the machine.
host = {}

---@class host.Event
---@field kind "event"|"user"|"reboot"
---@field time number seconds since 1970
---@field number integer of the event, the severity, or the reason of a reboot
---@field text string
---@field format? string of events
---@field log_id? integer of events; 0 if it was not logged
---@field detail? string of others

---@class host.TraceLine
---@field time number seconds since 1970
---@field component string
---@field file string
---@field line integer
---@field function string
---@field message string

---@class host.LogLine
---@field time number seconds since 1970
---@field level "fatal"|"error"|"warning"|"message"|"verbose"
---@field text string

---@class host.ZippedFile
---@field name string
---@field content string

---What is wrong, or may surprise, at a place of a checked text.
---@class host.CheckProblem
---@field line integer
---@field column integer
---@field key? string
---@field text string

---@class host.CheckTaken
---@field line integer
---@field column integer
---@field key string
---@field value number what the module reads

---@class host.CheckAnswer
---@field ok boolean there are no problems
---@field problems host.CheckProblem[]
---@field taken host.CheckTaken[]
---@field values table<string, number> in use, by their keys in a policy
---@field off boolean system health is off with it
---@field waits? integer[] minutes of a fail-open whose checks all fail; only for a single text
---@field effect? string[] what the module would do; only for a single text
---@field unexplained boolean the module does something else than the check expects

---The agent's object, as functions of the module take it.
---@return SLB.Dom dom
function host.dom() end

---The same object as const, which all functions of the module refuse.
---@return userdata dom
function host.const_dom() end

---@param key string
---@return string value "" if there is none
function host.get_setting(key) end

---@param key string
---@param value string|boolean a boolean for a flag
function host.set_setting(key, value) end

---From now on the folder stands for the agent's folder below C:\ProgramData.
---@param folder string missing folders are created
function host.use_program_data(folder) end

---What the module takes of a policy, and would do with it.
---@param text string
---@return host.CheckAnswer answer
---@overload fun(texts: string[]): host.CheckAnswer[]
function host.check_policy(text) end

---The same for the text of a vt_filter.conf.
---@param text string
---@return host.CheckAnswer answer
---@overload fun(texts: string[]): host.CheckAnswer[]
function host.check_config(text) end

---Runs a script in a host process of its own, on the stepped clock.
---@param path string
---@param ... string its arguments
---@return integer status
---@return string output with its errors
function host.run_script(path, ...) end

---Unloads the module, as a restart of the agent does; the next `require "fc"` loads it with fresh state. With
---`--clock steps` all its threads end, otherwise only those that a planned fault makes hang: no others may be at work.
function host.restart_module() end

---@param number integer
---@param text string
function host.send_event(number, text) end

---@param severity integer
---@param text string
---@param detail string
function host.notify_user(severity, text, detail) end

---What the module and the script sent and showed since the last call.
---@return host.Event[] events oldest first
function host.events() end

---@param component string "*" for all
---@param wanted boolean
function host.set_trace(component, wanted) end

---@param component string
---@param text string
function host.trace(component, text) end

---@return host.TraceLine[] traces since the last call, oldest first
function host.traces() end

---@return host.LogLine[] lines since the last call, of all threads
function host.log() end

---@param wanted boolean also verbose lines are printed and kept
function host.set_verbose_log(wanted) end

---@class host.RunState
---@field driver? string the version of the running driver
---@field filter? boolean the component is installed; of a simulated machine, as are the following
---@field callout? string the state of the service
---@field lock? string the holder of the write lock
---@field adapters? host.RunAdapter[]

---@class host.RunAdapter
---@field node string
---@field name string
---@field bound boolean the filter is bound to it

---@class host.RunStep
---@field name string
---@field depth integer
---@field limit? integer seconds
---@field begin number seconds since 1970
---@field seconds? number
---@field killed boolean
---@field failed boolean

---@class host.RunFailure
---@field call string
---@field code integer
---@field step string

---An installation or a removal of the drivers.
---@class host.Run
---@field kind "installation"|"removal"
---@field outcome "installed"|"upgraded"|"removed"|"nothing"|"pending"|"failed"|"unfinished"
---@field text string the outcome in words
---@field from? string the version before an installation
---@field to? string the version to install
---@field step? string of a failure
---@field call? string of a failure
---@field code? integer of a failure
---@field killed? number seconds in its step after which the worker was killed
---@field not_killed? number the same for a worker that could not be killed
---@field reboot boolean
---@field callout_left boolean
---@field filter_left boolean
---@field result? boolean what the function returned
---@field begin number seconds since 1970
---@field seconds? number
---@field state? host.RunState the machine when the function returned
---@field steps host.RunStep[]
---@field failures host.RunFailure[]
---@field log string
---@field stack? string of the thread that hung

---What became of each installation and removal so far.
---@return host.Run[] runs oldest first
function host.installations() end

---Adds a mark to the report.
---@param text string
function host.mark(text) end

---@return number seconds since 1970, UTC
function host.time() end

---@param seconds number from 0 to 4,000,000
function host.sleep(seconds) end

---@return boolean interrupted Ctrl-C was pressed
function host.interrupted() end

---Moves the simulated clock forward at once.
---@param seconds number from 0 to 1e9
function host.advance(seconds) end

---Sets the time of day of the simulated clock.
---@param seconds number since 1970, UTC
function host.set_wall_clock(seconds) end

---@class host.Fault
---@field call string such as "StartServiceW" or "INetCfg::Apply"
---@field nth? integer the number of the call, from 1; by default every call
---@field fail? integer the code with which the call fails
---@field delay? number seconds
---@field hang? boolean
---@field advance? number with `hang`: seconds by which the simulated clock moves then

---Plans a fault for a call that the module makes.
---@param fault host.Fault
function host.fault(fault) end

---@return string[] names that `call` can have, sorted
function host.fault_names() end

---Ends all faults.
function host.clear_faults() end

---@return fc.DriverHandle? handle
---@return string? error
function host.driver_handle() end

---@param handle fc.DriverHandle
function host.close_handle(handle) end

---@class host.Zip : SLB.wx.ZipOutputStream
---@field add fun(self: host.Zip, name: string, text: string) adds a file of the script's own

---A new zip file for the functions that write a package.
---@param path string
---@return host.Zip zip
function host.zip(path) end

---@param zip host.Zip
function host.close_zip(zip) end

---@param path string
---@return host.ZippedFile[] files
function host.read_zip(path) end

---@param path string
---@param content string
function host.write_file(path, content) end

---@param path string
---@param value any
function host.write_json(path, value) end

---@param path string
---@return any value
function host.read_json(path) end

-- Expectations ------------------------------------------------------------------------------------------

---@class host.WantedEvent
---@field kind? "event"|"user"|"reboot"
---@field number? integer
---@field text? string a part of the text

---Expectations of scripts that test: one that is not met is an error in the script's line.
host.expect = {}

---@param event host.WantedEvent
---@return host.Event event
function host.expect.event(event) end

---@param event? host.WantedEvent by default any
function host.expect.no_event(event) end

---@generic T
---@param condition T
---@param text? string what is wrong otherwise
---@return T condition
function host.expect.that(condition, text) end

---@param actual any
---@param expected any
---@param what? string for the message
---@return any actual
function host.expect.equal(actual, expected, what) end

---@param text string a part of the message
---@param f function
---@param ... any
---@return any message
function host.expect.error(text, f, ...) end

---@param status integer
---@param path string of the script
---@param ... string its arguments
---@return string output
function host.expect.status(status, path, ...) end

-- The machine ---------------------------------------------------------------------------------------------

---@alias host.Result "ok"|"reboot"|integer

---@class host.Component
---@field id string
---@field class? "service"|"protocol"
---@field result? host.Result of its removal
---@field stays? boolean it still exists after its removal succeeded

---@class host.Device
---@field id string
---@field description? string
---@field component? string the component with which it is removed

---@class host.AdapterChanges
---@field ip? string
---@field gateway? string
---@field frames? integer
---@field connected? boolean
---@field gateway_answers? boolean
---@field status? integer

---@class host.Adapter : host.AdapterChanges
---@field node string the id of its device
---@field name string as users see it
---@field id? string of its component
---@field mac? string such as "00:01:02:03:04:05"

---@class host.Installable
---@field id string
---@field results? host.Result[] at most 16
---@field leaves_nothing? boolean
---@field loads? string a driver's version

---@class host.Moment
---@field happens "installed"|"removed"|"bound"|"unbound"|"enabled"|"disabled"
---@field component? string
---@field adapter? string

---@class host.FirewallSwitches
---@field domain? boolean
---@field private? boolean
---@field public? boolean
---@field current? boolean the switch of systems before Vista

---@class host.Folders
---@field windows string
---@field system string
---@field inf string
---@field catalogs string
---@field program_files string

---@class host.Inventory
---@field components string[]
---@field devices string[]
---@field inf_files string[]
---@field keys string[]
---@field left_to_boot string[]
---@field services table<string, string> states by name
---@field lock? string the holder of the write lock

---@class host.AdapterState
---@field node string
---@field name string
---@field ip string
---@field gateway string
---@field connected boolean
---@field enabled boolean
---@field bound string[]

---@class host.FirewallApplication
---@field path string
---@field name string
---@field enabled boolean

---@class host.Firewall : host.FirewallSwitches
---@field applications host.FirewallApplication[]

---The simulated machine. The first field that is set puts it under the module.
host.machine = {}

---@type number
host.machine.processor_queue = 0
---@type integer
host.machine.processors = 4
---Bytes.
---@type integer
host.machine.memory_total = 8589934592
---Bytes.
---@type integer
host.machine.memory_available = 4294967296
---@type integer
host.machine.os_major = 10
---@type integer
host.machine.os_minor = 0
---@type integer
host.machine.os_build = 19045

---@param component host.Component
function host.machine.put_component(component) end

---@param device host.Device
function host.machine.put_device(device) end

---@param name string
---@param state "stopped"|"starting"|"stopping"|"running"|"paused"
---@param start? "boot"|"system"|"auto"|"demand"|"disabled" by default "demand"
function host.machine.put_service(name, state, start) end

---@param path string below HKEY_LOCAL_MACHINE
function host.machine.put_key(path) end

---@param holder string
function host.machine.lock_network(holder) end

---Releases the write lock of the network configuration, whoever holds it.
function host.machine.unlock_network() end

---@param function_name "SetupUninstallOEMInfW"|"InstallHinfSectionW"
function host.machine.lack(function_name) end

---@return host.Folders folders
function host.machine.folders() end

---Boots the machine; the module is unloaded.
function host.machine.reboot() end

---@return host.Inventory inventory
function host.machine.inventory() end

---@param adapter host.Adapter
function host.machine.put_adapter(adapter) end

---@param node string
---@param changes host.AdapterChanges
function host.machine.change_adapter(node, changes) end

---@param node string
function host.machine.remove_adapter(node) end

---@param node string
---@param component string
---@param bound? boolean
function host.machine.bind(node, component, bound) end

---@return host.AdapterState[] adapters
function host.machine.adapters() end

---@param installable host.Installable
function host.machine.put_installable(installable) end

---@param moment host.Moment
---@param node string
---@param changes host.AdapterChanges
function host.machine.when(moment, node, changes) end

---@param path string
---@param version string such as "2.0.0.0"
function host.machine.write_driver(path, version) end

---@param switches host.FirewallSwitches
function host.machine.set_firewall(switches) end

---@return host.Firewall firewall
function host.machine.firewall() end

-- The driver ----------------------------------------------------------------------------------------------

---The driver behind vti.dll.
host.driver = {}

---@type boolean
host.driver.present = true
---@type boolean
host.driver.available = true
---@type string
host.driver.version = "1.0.0.0"
---Read-only.
---@type integer
host.driver.open_handles = 0
---Read-only.
---@type integer
host.driver.trace_level = 0
---Read-only.
---@type string[]
host.driver.calls = {}

---@param index integer from 0 to 173
---@return number value
function host.driver.get_variable(index) end

---@param index integer from 0 to 173
---@param value number
function host.driver.set_variable(index, value) end

---@param counters number[] at most ten
function host.driver.set_counters(counters) end

---@param udp string[]
---@param tcp string[]
function host.driver.set_connections(udp, tcp) end

---@param bytes string
function host.driver.set_blacklist(bytes) end

---@param bytes string
function host.driver.set_profile(bytes) end

---@param operation string such as "vti_get_scan_metrics"
---@param status integer
---@param text string
function host.driver.set_fault(operation, status, text) end

---@return string[] names that `operation` can have
function host.driver.fault_names() end

---Ends all of them.
function host.driver.clear_faults() end

---@param level integer
---@param source string
---@param file string
---@param line integer
---@param text string
function host.driver.trace(level, source, file, line, text) end
