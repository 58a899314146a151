-- The life of the drivers on one machine, as its agent sees it: they are installed, do their work, are upgraded, hang,
-- break the network, which recovers, and are removed.
--
--   fc-host --clock steps --quiet --report out/report.html --events out/events.json examples/story.lua [--out DIR]
--
-- Machine, driver and clock are simulated. The diagnostic package goes to DIR/diagnostics.zip (out/diagnostics.zip),
-- the agent's trace to DIR/trace.log after each chapter. The exit code is 1 if something did not go as planned.

local ETHERNET, WIFI = [[PCI\VEN_8086&DEV_100E\1]], [[PCI\VEN_14E4&DEV_43A0\1]]
local MORNING = 1772438400 -- 2 March 2026, 08:00 UTC
local HEALTH_SECONDS = 30 -- between two checks of the machine's health
local FOLD_SECONDS = 61 -- the module folds what was counted once a minute
local PROFILE_VARIABLE = 62 -- while it is 1, the driver has a profile of its rules
local TEXT_COLUMN = 26
local CALLOUT_INF = [[
[DefaultInstall.Services]
AddService = qbimwfp,2,callout
[DefaultUninstall.Services]
DelService = qbimwfp
]]
local HEALTH_FILE = "SYSTEM_CONNECTION_REFUSAL_PORT=443\nSYSTEM_RUNQ_PCT_THRESHOLD=50\nSYSTEM_MIN_FREE_MEM_PCT=12" ..
    "\nSYSTEM_RECOVERY_FACTOR=80\nSYSTEM_MIN_ACT_DURATION=15\nSYSTEM_MAX_ACT_DURATION=60\n"

local expect = host.expect

local function fail(...)
    io.stderr:write("story: ", string.format(...), "\n")
    os.exit(1)
end

local function parse_arguments(arguments)
    local options = { out = "out" }
    if arguments[1] == "--out" then
        options.out = arguments[2] or fail("--out needs the name of a folder")
    elseif arguments[1] then
        fail("unknown argument '%s'; usage: story.lua [--out DIR]", arguments[1])
    end
    if not pcall(host.advance, 0) then
        fail("the day takes a simulated clock: start fc-host with --clock steps")
    end
    options.out = options.out:gsub("[/\\]$", "")
    return options
end

-- What is shown --------------------------------------------------------------------------------------

local chapters = 0
local trace_lines = {}

local function clock_text()
    return os.date("!%H:%M:%S", math.floor(host.time()))
end

-- A heading, and in the trace, too, and in the report.
local function chapter(...)
    local text = string.format(...)
    chapters = chapters + 1
    print(string.format("\n%d. %s", chapters, text))
    trace_lines[#trace_lines + 1] = string.format("\n-- %s  %s", clock_text(), text)
    host.mark(text)
end

local function row(what, ...)
    print(string.format("   %-" .. TEXT_COLUMN .. "s%s", what, string.format(...)))
end

local function keep_traces()
    for _, trace in ipairs(host.traces()) do
        trace_lines[#trace_lines + 1] = string.format("%-15s %s: %s", trace.component, trace["function"],
            trace.message)
    end
end

local function show_network()
    for _, adapter in ipairs(host.machine.adapters()) do
        row(adapter.name, "%-13s bound to %s", adapter.ip, table.concat(adapter.bound, ", "))
    end
end

local function on_or_off(value)
    return value and "on" or "off"
end

local function show_firewall()
    local firewall = host.machine.firewall()
    row("native firewall", "domain %s, private %s, public %s", on_or_off(firewall.domain),
        on_or_off(firewall.private), on_or_off(firewall.public))
end

-- The machine ----------------------------------------------------------------------------------------

local function is_bound(node)
    for _, adapter in ipairs(host.machine.adapters()) do
        for _, component in ipairs(adapter.bound) do
            if adapter.node == node and component == "qbimvta" then
                return true
            end
        end
    end
    return false
end

local function address_of(node)
    for _, adapter in ipairs(host.machine.adapters()) do
        if adapter.node == node then
            return adapter.ip
        end
    end
end

-- From now on our copy of the driver has this version.
local function ship(folder, version)
    host.machine.write_driver(folder .. "qbimvta.sys", version)
    host.machine.put_installable { id = "qbimvta", loads = version }
end

-- Delays calls by their usual time on a real machine.
local function slow_down()
    host.fault { call = "INetCfgClassSetup::DeInstall", delay = 3 }
    host.fault { call = "INetCfgClassSetup::Install", delay = 6 }
    host.fault { call = "INetCfg::Apply", delay = 1 }
end

-- Returns the folder of the drivers' files.
local function make_machine(out)
    local machine, folder = host.machine, host.machine.folders().program_files
    host.set_wall_clock(MORNING)
    host.use_program_data(out .. "/agent")
    host.write_file(out .. "/agent/filter/vt_filter.conf", HEALTH_FILE)
    machine.put_component { id = "ms_tcpip", class = "protocol" }
    machine.put_adapter { node = ETHERNET, name = "Ethernet", ip = "192.0.2.10", gateway = "192.0.2.1" }
    machine.put_adapter { node = WIFI, name = "Wi-Fi", ip = "198.51.100.7", gateway = "198.51.100.1" }
    machine.bind(ETHERNET, "ms_tcpip")
    machine.bind(WIFI, "ms_tcpip")
    machine.set_firewall { public = false }
    machine.processor_queue = 4
    host.write_file(folder .. "netqbimvta.inf", ("CopyFiles = qbimvta.sys\r\n"):rep(12))
    host.write_file(folder .. "netqbimwfp.inf", CALLOUT_INF)
    host.driver.present = false
    slow_down()
    return folder
end

-- Installations --------------------------------------------------------------------------------------

-- What became of the latest installation or removal.
local function latest()
    local all = host.installations()
    return all[#all]
end

local function install(folder)
    local result = SLB.filter.InstallOrUpdateDriver(host.dom(), folder, folder)
    local outcome = latest()
    row("InstallOrUpdateDriver", "%s, after %d s", tostring(result), outcome.seconds)
    expect.that(result, "the installation could not be started")
    row("outcome", "%s", outcome.text)
    return outcome
end

local function install_first(folder)
    chapter("The drivers are installed")
    show_network()
    show_firewall()
    SLB.filter.DisableNativeFirewall()
    ship(folder, "2.0.0.0")
    local outcome = install(folder)
    expect.equal(outcome.outcome, "installed", "the outcome of the first installation")
    expect.equal(outcome.state.driver, "2.0.0.0", "the driver's version")
    expect.that(SLB.filter.StartWFPDriver(true), "the callout does not start")
    row("service qbimwfp", "%s", host.machine.inventory().services.qbimwfp)
    show_network()
    show_firewall()
    expect.that(is_bound(ETHERNET) and is_bound(WIFI), "the filter is not bound everywhere")
end

local function upgrade(folder)
    chapter("An upgrade keeps the bindings")
    host.machine.bind(WIFI, "qbimvta", false)
    row("the administrator", "unbinds the filter from Wi-Fi")
    ship(folder, "2.1.0.0")
    local outcome = install(folder)
    expect.equal(outcome.outcome, "upgraded", "the outcome of the upgrade")
    expect.equal(outcome.state.driver, "2.1.0.0", "the driver's version")
    show_network()
    expect.that(is_bound(ETHERNET) and not is_bound(WIFI), "the upgrade does not keep the bindings")
end

local function hung_upgrade(folder)
    chapter("The next upgrade hangs in a call of Windows")
    ship(folder, "2.2.0.0")
    host.set_verbose_log(true) -- else there is no stack trace
    host.fault { call = "INetCfgClassSetup::Install", nth = 1, hang = true }
    local outcome = install(folder)
    host.set_verbose_log(false)
    host.clear_faults()
    slow_down()
    expect.that(outcome.killed, "the hung step is not reported")
    expect.equal(outcome.step, "InstallingDriver", "the step that hangs")
    expect.that(outcome.stack, "there is no stack trace of the worker")
    local frames = select(2, ("\n" .. outcome.stack):gsub("\n%[", ""))
    local place = outcome.stack:match("(CDriver[%w_:]+)%+%d+\n") -- the innermost function of the module
    row("its stack", "%d frames", frames)
    row("it waits in", "%s", place or "a function without a name: fc.pdb is not beside fc.dll")
    row("driver", "%s", outcome.state.driver and "runs" or "none: the old one is gone, the new one not there")
    row("lock of the network", "still held by %s", expect.that(outcome.state.lock, "the lock is free"))
    expect.equal(outcome.state.driver, nil, "the driver's version")
end

local function broken_network(folder)
    chapter("The second attempt breaks the network, which then recovers")
    host.machine.when({ happens = "installed", component = "qbimvta" }, ETHERNET,
        { ip = "0.0.0.0", gateway = "0.0.0.0" })
    host.machine.when({ happens = "bound", component = "qbimvta", adapter = ETHERNET }, ETHERNET,
        { ip = "192.0.2.10", gateway = "192.0.2.1" })
    local outcome = install(folder)
    expect.equal(outcome.outcome, "installed", "the outcome of the second attempt")
    expect.equal(outcome.state.driver, "2.2.0.0", "the driver's version")
    keep_traces()
    local complaint = "Adapter 'Ethernet' had an IP address and now it doesn't"
    expect.that(table.concat(trace_lines, "\n"):find(complaint, 1, true), "nobody sees that the network is broken")
    row("Ethernet", "lost its address: the filter was unbound and bound again")
    show_network()
    expect.equal(address_of(ETHERNET), "192.0.2.10", "the address of Ethernet")
    expect.that(not outcome.reboot, "the network needs a reboot")
end

local function remove(folder)
    chapter("The drivers are removed")
    local removed = SLB.filter.UninstallDriver(host.dom(), folder, folder)
    local outcome = latest()
    row("UninstallDriver", "%s, after %d s", tostring(removed), outcome.seconds)
    row("outcome", "%s", outcome.text)
    SLB.filter.EnableNativeFirewall()
    local left = host.machine.inventory()
    row("components", "%s", table.concat(left.components, ", "))
    row("service qbimwfp", "%s", left.services.qbimwfp or "none")
    row("INF files of the drivers", "%s", #left.inf_files == 0 and "none" or table.concat(left.inf_files, ", "))
    show_network()
    show_firewall()
    local firewall = host.machine.firewall()
    expect.that(removed and #left.components == 1 and not left.services.qbimwfp, "the removal leaves something")
    expect.that(firewall.domain and firewall.private and not firewall.public, "the firewall is not as it was")
end

-- Work -----------------------------------------------------------------------------------------------

-- Checks the machine's health until the module gives the answer. Returns how often.
local function poll_until(state, action)
    for poll = 1, 100 do
        host.advance(HEALTH_SECONDS)
        if SLB.filter.CheckSystemHealthMetrics(host.dom(), state, "").action == action then
            return poll
        end
    end
    error(("the health check never answers %d"):format(action))
end

local function health()
    chapter("The machine is overloaded, and recovers")
    poll_until("Deactivated", 0)
    row(clock_text(), "a queue of 4 processes: the filter works")
    host.machine.processor_queue = 90
    poll_until("Deactivated", 1)
    row(clock_text(), "a queue of 90 is above 50: the filter fails open")
    host.machine.processor_queue = 6
    local polls = poll_until("Activated", 0)
    row(clock_text(), "recovered: %d polls, %d s apart, until the wait was over", polls, HEALTH_SECONDS)
end

local function count_connections()
    chapter("Connections are counted by kind")
    local kinds = { { "udp", 53, 6, 120 }, { "tcp", 443, 5, 80 }, { "tcp", 25, 260, 3 } }
    for _, kind in ipairs(kinds) do
        local proto, port, flags, count = kind[1], kind[2], kind[3], kind[4]
        SLB.filter.AddToConnMetrics(proto .. port, ("flags\t%d\ndst_port\t%d\nproto\t%s"):format(flags, port, proto),
            count)
    end
    host.advance(FOLD_SECONDS)
    SLB.filter.UpdateConnMetrics()
    local rows, total = SLB.filter.GetConnMetrics(), 0
    for _, found in ipairs(rows) do
        row(found.proto .. " " .. found.dst_port, "%d", found.count)
        total = total + found.count
    end
    expect.equal(#rows, #kinds, "the number of kinds")
    expect.equal(total, 203, "the number of connections")
end

local function diagnose(path)
    chapter("A diagnostic package is made")
    host.driver.set_connections({ "192.0.2.10:5353" }, { "192.0.2.10:49152", "192.0.2.10:49153" })
    host.driver.set_blacklist("203.0.113.0/24")
    host.driver.set_profile(("rule\0"):rep(100))
    host.driver.set_variable(PROFILE_VARIABLE, 1)
    local zip, handle = host.zip(path), expect.that(host.driver_handle(), "the driver can't be opened")
    SLB.filter.AddDriverDiagnostics(host.dom(), handle, zip)
    host.close_handle(handle)
    host.close_zip(zip)
    local files = host.read_zip(path)
    for _, file in ipairs(files) do
        row(file.name, "%7d bytes", #file.content)
    end
    expect.that(#files >= 4, "the package has too few files")
end

local function write_trace(out)
    keep_traces()
    host.write_file(out .. "/trace.log", table.concat(trace_lines, "\n"):sub(2) .. "\n")
end

local function tell_the_day(folder, out)
    local function pack() diagnose(out .. "/diagnostics.zip") end
    for _, tell in ipairs { install_first, health, count_connections, pack,
        upgrade, hung_upgrade, broken_network, remove } do
        tell(folder)
        write_trace(out)
        host.advance(600) -- until the next chapter
    end
end

local function main(arguments)
    local options = parse_arguments(arguments)
    host.set_trace("*", true)
    local folder = make_machine(options.out)
    require "fc"
    print("One day of a machine with two network adapters; the machine and its clock are simulated.")
    local whole, message = pcall(tell_the_day, folder, options.out)
    if not whole then
        write_trace(options.out)
        error(message, 0)
    end
    print(string.format("\nThe package is %s/diagnostics.zip, the agent's trace is %s/trace.log",
        options.out, options.out))
end

main({ ... })
