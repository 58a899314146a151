-- Removes the drivers from a machine on which one call never returns, and shows what support sees of it. Then removes
-- them again, in the same process.
--
--   fc-host --clock steps --quiet examples/removal.lua
--
-- The machine and the clock are simulated: the clock advances only while all wait, so that the ten minutes after which
-- the call is abandoned take a few seconds. docs/removal.md explains each line of the log. The exit code is 1 if a
-- removal did not go as planned.

local CALLOUT_INF = [[
[Version]
Signature = "$Windows NT$"
[DefaultUninstall]
[DefaultUninstall.Services]
DelService = qbimwfp,0x200
]]

local function fail(...)
    io.stderr:write("removal: ", string.format(...), "\n")
    os.exit(1)
end

-- The machine ------------------------------------------------------------------------------------------

local function write_file(path, content)
    local file, message = io.open(path, "wb")
    if not file then
        fail("%s", message)
    end
    file:write(content)
    file:close()
end

-- A file that names a driver ten times counts as a copy of that driver's INF file.
local function inf_naming(driver)
    return "[Version]\r\n" .. string.rep("CopyFiles = " .. driver .. ".sys\r\n", 12) .. "; the end of the file\r\n"
end

-- Returns the folder of the callout's files.
local function install_drivers()
    local machine, folders = host.machine, host.machine.folders()
    machine.put_component { id = "qbimvta" }
    machine.put_device { id = [[ROOT\QBIMVTA_MP\0000]], description = "Filter miniport", component = "qbimvta" }
    machine.put_device { id = [[PCI\VEN_8086&DEV_100E]], description = "Network adapter" }
    machine.put_service("qbimwfp", "running")
    write_file(folders.inf .. "oem1.inf", inf_naming("qbimvta"))
    write_file(folders.inf .. "oem2.inf", inf_naming("qbimwfp"))
    write_file(folders.inf .. "oem3.inf", inf_naming("another"))
    write_file(folders.program_files .. "netqbimwfp.inf", CALLOUT_INF)
    return folders.program_files
end

local function services_text(services)
    local texts = {}
    for name, state in pairs(services) do
        texts[#texts + 1] = name .. " (" .. state .. ")"
    end
    table.sort(texts)
    return texts
end

local function show_machine(inventory)
    local function row(name, texts)
        print(string.format("  %-11s %s", name, #texts > 0 and table.concat(texts, ", ") or "none"))
    end
    row("components", inventory.components)
    row("devices", inventory.devices)
    row("services", services_text(inventory.services))
    row("INF files", inventory.inf_files)
    row("write lock", { inventory.lock and "held by " .. inventory.lock or "free" })
end

-- A removal --------------------------------------------------------------------------------------------

local function show_log(lines, begin)
    for _, line in ipairs(lines) do
        local level = line.level == "message" and "" or line.level .. ": "
        local text = (level .. line.text):gsub("\n", "\n" .. string.rep(" ", 9))
        print(string.format("  %4d s %s", line.time - begin, text))
    end
end

local function show_events(events)
    for _, event in ipairs(events) do
        print(string.format("  %s %d: %s", event.kind, event.number, event.text))
    end
    if #events == 0 then
        print("  no events and no notifications")
    end
end

-- Returns what became of it.
local function remove_drivers(folder)
    local removed = SLB.filter.UninstallDriver(host.dom(), folder, folder)
    local all = host.installations()
    local outcome = all[#all]
    show_log(host.log(), outcome.begin)
    show_events(host.events())
    print(string.format("  UninstallDriver returns %s after %d seconds", tostring(removed), outcome.seconds))
    print("  Outcome: " .. outcome.text)
    return outcome
end

local expect = host.expect.that

local function first_removal(folder)
    print("\nThe first removal: the call that takes the filter away does not come back")
    host.fault { call = "INetCfgClassSetup::DeInstall", nth = 1, hang = true }
    local outcome = remove_drivers(folder)
    expect(outcome.outcome == "failed" and outcome.killed, "the first removal is not killed")
    expect(outcome.step == "UninstallingDriver", "the first removal does not get to its step")
    expect(outcome.stack, "there is no stack trace of the stuck thread")

    print("\nWhat it leaves: the callout is gone, the filter is not, and the lock of the killed thread is still held")
    local left = host.machine.inventory()
    show_machine(left)
    expect(#left.components == 1 and left.lock, "the first removal leaves no component, or no lock")
end

local function second_removal(folder)
    print("\nThe second removal, in the same process: the lock is this agent's own, so it goes on")
    local outcome = remove_drivers(folder)
    expect(outcome.outcome == "removed", "the second removal fails")

    print("\nWhat it leaves")
    local left = host.machine.inventory()
    show_machine(left)
    expect(#left.components == 0 and #left.inf_files == 1 and not left.lock, "the second removal leaves something")
end

local function main(arguments)
    if arguments[1] then
        fail("unknown argument '%s'; usage: removal.lua", arguments[1])
    elseif not pcall(host.advance, 0) then
        fail("ten minutes take a simulated clock: start fc-host with --clock steps")
    end
    local folder = install_drivers()
    host.set_verbose_log(true) -- else there is no stack trace
    require "fc"
    print("The machine")
    show_machine(host.machine.inventory())
    first_removal(folder)
    second_removal(folder)
end

main({ ... })
