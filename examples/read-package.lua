-- Prints the drivers' files of a diagnostic package readably, and finds an address in them.
--
--   fc-host examples/read-package.lua PACKAGE.zip [--find ADDRESS] [--all]
--
-- ADDRESS is an IPv4 or IPv6 address, or a port. --all prints every number, connection and byte, not only the first.
-- docs/package.md explains what is printed. The exit code is 1 if the package can't be read, and if nothing is found.

local USAGE = "usage: read-package.lua PACKAGE.zip [--find ADDRESS] [--all]"
local SHOWN_NUMBERS, SHOWN_CONNECTIONS, SHOWN_BYTES, SHOWN_CHARACTERS = 20, 10, 64, 120
local BYTES_PER_LINE = 16
local LAST_PORT = 65535

local function fail(...)
    io.stderr:write("read-package: ", string.format(...), "\n")
    os.exit(1)
end

-- What can be found ------------------------------------------------------------------------------------

-- Bytes that stand for the address, with the name of that form.
local function ipv4_forms(text)
    local parts = { text:match("^(%d+)%.(%d+)%.(%d+)%.(%d+)$") }
    for i, part in ipairs(parts) do
        parts[i] = tonumber(part)
        if parts[i] > 255 then
            return nil
        end
    end
    if #parts == 4 then
        local bytes = string.char(table.unpack(parts))
        return { { "network order", bytes }, { "reversed", bytes:reverse() } }
    end
end

-- The 16-bit groups of an IPv6 address, or nil.
local function ipv6_groups(text)
    local groups = {}
    if text:find("^:") or text:find(":$") or text:find("::", 1, true) then
        return nil
    end
    for group in text:gmatch("[^:]+") do
        local number = #group <= 4 and tonumber(group, 16)
        if not number then
            return nil
        end
        groups[#groups + 1] = number
    end
    return groups
end

local function ipv6_forms(text)
    local head, tail = text:match("^(.-)::(.*)$")
    local first, last = ipv6_groups(head or text), ipv6_groups(tail or "")
    if not text:find(":", 1, true) or not first or not last then
        return nil
    end
    local missing = 8 - #first - #last
    if missing < 0 or (head and missing == 0) or (not head and missing ~= 0) then
        return nil
    end
    for _ = 1, missing do
        first[#first + 1] = 0
    end
    for _, group in ipairs(last) do
        first[#first + 1] = group
    end
    local bytes = ""
    for _, group in ipairs(first) do
        bytes = bytes .. string.char(math.floor(group / 256), group % 256)
    end
    return { { "network order", bytes }, { "each 32 bits reversed", (bytes:gsub("....", string.reverse)) } }
end

local function port_forms(text)
    local port = text:find("^%d+$") and tonumber(text)
    if port and port >= 1 and port <= LAST_PORT then
        local bytes = string.char(math.floor(port / 256), port % 256)
        return { { "network order", bytes }, { "reversed", bytes:reverse() } }
    end
end

local function parse_address(text)
    local forms = ipv4_forms(text) or ipv6_forms(text) or port_forms(text)
    if not forms then
        fail("'%s' is neither an IPv4 or IPv6 address nor a port", text)
    end
    if forms[1][2] == forms[2][2] then
        forms[2] = nil
    end
    return { text = text, forms = forms }
end

local function parse_arguments(arguments)
    local options, i = {}, 1
    while arguments[i] do
        local argument = arguments[i]
        if argument == "--find" then
            i = i + 1
            options.find = parse_address(arguments[i] or fail("--find needs an address"))
        elseif argument == "--all" then
            options.all = true
        elseif options.package or argument:find("^%-") then
            fail("unknown argument '%s'; %s", argument, USAGE)
        else
            options.package = argument
        end
        i = i + 1
    end
    return options.package and options or fail("%s", USAGE)
end

-- Calls on_hit(offset, form) for each place of the address in the bytes.
local function each_hit(address, bytes, on_hit)
    for _, form in ipairs(address.forms) do
        local at = bytes:find(form[2], 1, true)
        while at do
            on_hit(at - 1, form[1])
            at = bytes:find(form[2], at + 1, true)
        end
    end
    -- As a text, unless it is a part of a longer number.
    local at = bytes:find(address.text, 1, true)
    while at do
        local before, after = bytes:sub(at - 1, at - 1), bytes:sub(at + #address.text, at + #address.text)
        if (at == 1 or not before:find("[%x]")) and not after:find("[%x]") then
            on_hit(at - 1, "text")
        end
        at = bytes:find(address.text, at + 1, true)
    end
end

-- What the files have ----------------------------------------------------------------------------------

-- A package may come from anywhere: nothing of it gets to the terminal but what can be printed.
local function printable(text)
    return (text:gsub("[^ -~]", "."))
end

local function bytes_of(digits)
    return (digits:gsub("%x%x", function(two) return string.char(tonumber(two, 16)) end))
end

-- Lines in hexadecimal and as text, without those that are all zero.
local function show_bytes(bytes, limit)
    local skipped = 0
    for at = 1, math.min(#bytes, limit), BYTES_PER_LINE do
        local line = bytes:sub(at, math.min(at + BYTES_PER_LINE - 1, limit))
        if line:find("[^%z]") then
            local digits = line:gsub(".", function(byte) return ("%02x "):format(byte:byte()) end)
            print(("      %04x  %-48s %s"):format(at - 1, digits, printable(line)))
        else
            skipped = skipped + #line
        end
    end
    if skipped > 0 then
        print(("      and %d bytes in lines of zeros"):format(skipped))
    end
    if #bytes > limit then
        print(("      and %d more bytes; --all shows them"):format(#bytes - limit))
    end
end

local function show_line(line)
    print("    " .. printable(line:sub(1, SHOWN_CHARACTERS)) .. (#line > SHOWN_CHARACTERS and " ..." or ""))
end

local function each_line(text)
    return text:gmatch("[^\r\n]+")
end

-- Lines "name[index] = number": those other than 0.
local function show_numbers(text, options)
    local count, zeros, shown = 0, 0, 0
    for line in each_line(text) do
        local name, value = line:match("^(%a+%[%d+%]) = (%d+)$")
        if not name then
            show_line(line)
        else
            count = count + 1
            if value:find("^0+$") then
                zeros = zeros + 1
            elseif options.all or shown < SHOWN_NUMBERS then
                shown = shown + 1
                print(("    %-16s %s"):format(name, value))
            end
        end
    end
    if shown < count - zeros then
        print(("    and %d more; --all shows them"):format(count - zeros - shown))
    end
    print(("    %d numbers, %d of them 0"):format(count, zeros))
end

-- Lines "udp[0] = 0011..", each an entry of 64 bytes.
local function read_connections(text)
    local connections, others = {}, {}
    for line in each_line(text) do
        local name, digits = line:match("^(%a+%[%d+%]) = (%x+)$")
        if name and #digits % 2 == 0 then
            connections[#connections + 1] = { name = name, bytes = bytes_of(digits) }
        else
            others[#others + 1] = line
        end
    end
    return connections, others
end

local function show_connections(text, options)
    local connections, others = read_connections(text)
    for _, line in ipairs(others) do
        show_line(line)
    end
    local shown = options.all and #connections or math.min(#connections, SHOWN_CONNECTIONS)
    for i = 1, shown do
        print("    " .. connections[i].name)
        show_bytes(connections[i].bytes, #connections[i].bytes)
    end
    if shown < #connections then
        print(("    and %d more connections; --all shows them"):format(#connections - shown))
    end
end

-- Lines "0010 0011..": an offset and up to 16 bytes.
local function read_blacklist(text)
    local parts, others = {}, {}
    for line in each_line(text) do
        local digits = line:match("^%x+ (%x+)$")
        if digits and #digits % 2 == 0 then
            parts[#parts + 1] = bytes_of(digits)
        else
            others[#others + 1] = line
        end
    end
    return table.concat(parts), others
end

local function show_blacklist(text, options)
    local bytes, others = read_blacklist(text)
    for _, line in ipairs(others) do
        show_line(line)
    end
    show_bytes(bytes, options.all and #bytes or SHOWN_BYTES)
end

local function show_profile(bytes, options)
    show_bytes(bytes, options.all and #bytes or SHOWN_BYTES)
end

local FILES = {
    ["vta_stats.txt"] = { title = "what the filter driver counted", show = show_numbers },
    ["vta_variables.txt"] = { title = "the variables of the filter", show = show_numbers },
    ["vta_conn_track.txt"] = { title = "connections", show = show_connections },
    ["vta_blacklist.txt"] = { title = "the blacklist", show = show_blacklist },
    ["vta.tpf"] = { title = "the profile of the rules", show = show_profile },
}
local ORDER = { "vta_stats.txt", "vta_variables.txt", "vta_conn_track.txt", "vta_blacklist.txt", "vta.tpf" }

-- The package ------------------------------------------------------------------------------------------

-- The agent may put its files into a folder of the package.
local function base_name(name)
    return name:match("[^/\\]*$")
end

local function show_package(files, options)
    local there, others = {}, {}
    for _, file in ipairs(files) do
        local known = FILES[base_name(file.name)]
        there[base_name(file.name)] = true
        if known then
            print(("\n%s: %s, %d bytes"):format(printable(file.name), known.title, #file.content))
            known.show(file.content, options)
        else
            others[#others + 1] = ("    %10d bytes  %s"):format(#file.content, printable(file.name))
        end
    end
    for _, name in ipairs(ORDER) do
        if not there[name] then
            print("\n" .. name .. ": not in the package")
        end
    end
    if #others > 0 then
        print("\nOther files\n" .. table.concat(others, "\n"))
    end
end

-- Returns the number of places.
local function find_in(file, address)
    local count = 0
    local function find(where, bytes)
        each_hit(address, bytes, function(offset, form)
            count = count + 1
            print(("%s: %s, at byte %d, %s"):format(printable(file.name), where, offset, form))
        end)
    end
    local name = base_name(file.name)
    if name == "vta_conn_track.txt" then
        for _, connection in ipairs((read_connections(file.content))) do
            find(connection.name, connection.bytes)
        end
    elseif name == "vta_blacklist.txt" then
        find("the blacklist", (read_blacklist(file.content)))
    elseif name == "vta.tpf" then
        find("the profile", file.content)
    end
    return count
end

local function find_address(files, address)
    local count = 0
    for _, file in ipairs(files) do
        count = count + find_in(file, address)
    end
    if count == 0 then
        fail("%s is in no connection, nor in the blacklist or the profile", address.text)
    end
    print(("%s: %d place%s"):format(address.text, count, count == 1 and "" or "s"))
end

-- Why a file is no package.
local function explain(path, message)
    local file = io.open(path, "rb")
    local beginning = file and file:read(2)
    if file then
        file:close()
    end
    message = message:gsub("^bad argument #1 to '[^']*' %((.*)%)$", "%1")
    if beginning == "PK" and message:find("it is no zip file$") then
        message = message .. ", though it begins like one: it may be cut off"
    end
    return message
end

local function main(arguments)
    local options = parse_arguments(arguments)
    local read, files = pcall(host.read_zip, options.package)
    if not read then
        fail("%s", printable(explain(options.package, files)))
    end
    if options.find then
        find_address(files, options.find)
    else
        show_package(files, options)
    end
end

main({ ... })
