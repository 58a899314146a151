-- Builds a diagnostic package from the simulated driver, and shows its contents.
--
--   fc-host examples/diagnostics.lua [--out DIR]
--
-- The package is DIR/diagnostics.zip (out/diagnostics.zip), as an agent would send it to support. The driver's data is
-- made up: only its own library, which also prints them, knows the layout of its records. The exit code is 1 if a file
-- is missing from the package.

local EXPECTED = { "vta_stats.txt", "vta_variables.txt", "vta_conn_track.txt", "vta_blacklist.txt", "vta.tpf" }
local SHOWN_LINES = 3
local SHOWN_CHARACTERS = 60
local PROFILE_VARIABLE = 62 -- the module sets it back to 0 once it has read the profile

local function fail(...)
    io.stderr:write("diagnostics: ", string.format(...), "\n")
    os.exit(1)
end

local function parse_arguments(arguments)
    local options = { out = "out" }
    if arguments[1] == "--out" then
        options.out = arguments[2] or fail("--out needs the name of a folder")
    elseif arguments[1] then
        fail("unknown argument '%s'; usage: diagnostics.lua [--out DIR]", arguments[1])
    end
    return options
end

-- The driver -----------------------------------------------------------------------------------------

local function connections(count, first_port)
    local entries = {}
    for i = 1, count do
        entries[i] = string.format("192.0.2.%d:%d", i % 250 + 1, first_port + i)
    end
    return entries
end

local function fill_driver()
    host.driver.set_connections(connections(12, 5000), connections(30, 40000))
    host.driver.set_blacklist(table.concat({ "198.51.100.7", "203.0.113.0/24", "2001:db8::/32" }, "\n"))
    host.driver.set_profile(string.rep("rule\0", 200))
    for i = 0, 173 do
        host.driver.set_variable(i, i * i)
    end
    host.driver.set_variable(PROFILE_VARIABLE, 1)
end

-- The package ----------------------------------------------------------------------------------------

local function build_package(path)
    local zip = host.zip(path)
    local handle = host.driver_handle()
    SLB.filter.AddDriverDiagnostics(host.dom(), handle, zip)
    host.close_handle(handle)
    host.close_zip(zip)
end

local function printable(line)
    return (line:sub(1, SHOWN_CHARACTERS):gsub("[^ -~]", "."))
end

local function show(file)
    print(string.format("%-20s %9d bytes", file.name, #file.content))
    local shown = 0
    for line in file.content:gmatch("[^\r\n]+") do
        print("    " .. printable(line))
        shown = shown + 1
        if shown == SHOWN_LINES then
            break
        end
    end
end

local function main(arguments)
    local options = parse_arguments(arguments)
    local path = options.out:gsub("[/\\]$", "") .. "/diagnostics.zip"
    require "fc"
    fill_driver()
    build_package(path)

    local files = host.read_zip(path)
    for i, name in ipairs(EXPECTED) do
        host.expect.equal(files[i] and files[i].name, name, "file " .. i .. " of " .. path)
        show(files[i])
    end
    print(string.format("\nVariable %d is %d after the profile was read.", PROFILE_VARIABLE,
        host.driver.get_variable(PROFILE_VARIABLE)))
    print("The package is " .. path)
end

main({ ... })
