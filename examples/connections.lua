-- Counts the connections of a Zeek conn.log by kind, with the module's connection metrics.
--
--   fc-host --clock steps examples/connections.lua [LOG] [--out DIR]
--
-- LOG is a conn.log in Zeek's TSV format; by default it reads the sample beside this script. It prints the most
-- frequent kinds, and writes all of them to DIR/connections.json (out/connections.json). The exit code is 1 if the log
-- has no usable row. Ctrl-C stops the reading; what was counted so far is written.

local MAX_KINDS = 10000 -- the module keeps no more
local FOLD_AFTER_SECONDS = 61 -- it folds new counts once a minute
local TOP = 10
local MAX_REPORTED = 5
local MAX_SKIPPED = 1000 -- the result explains at most this many rows; further ones are only counted

local FLAGS = { ssl = 1, udp = 2, outbound = 4, start_tls = 256 } -- bits of the flags word
local REQUIRED_FIELDS = { "proto", "id.resp_p" }

local function fail(...)
    io.stderr:write("connections: ", string.format(...), "\n")
    os.exit(1)
end

-- The command line ---------------------------------------------------------------------------------

local function parse_arguments(arguments)
    local options = { log = nil, out = "out" }
    local i = 1
    while i <= #arguments do
        local argument = arguments[i]
        if argument == "--out" then
            i = i + 1
            options.out = arguments[i] or fail("--out needs the name of a folder")
        elseif argument:sub(1, 1) == "-" then
            fail("unknown option '%s'; usage: connections.lua [LOG] [--out DIR]", argument)
        elseif options.log then
            fail("one log at a time: '%s' is one too many", argument)
        else
            options.log = argument
        end
        i = i + 1
    end
    options.log = options.log or (arg[0]:match("^(.*[/\\])") or "") .. "conn.log"
    return options
end

-- Reading the log ----------------------------------------------------------------------------------

-- Splits at a literal separator.
local function split(text, separator)
    local parts, from = {}, 1
    while true do
        local first, last = text:find(separator, from, true)
        parts[#parts + 1] = text:sub(from, (first or 0) - 1)
        if not first then
            return parts
        end
        from = last + 1
    end
end

-- "\x09" is written with its four characters in the header.
local function unescape(text)
    return (text:gsub("\\x(%x%x)", function(digits)
        return string.char(tonumber(digits, 16))
    end))
end

local BYTE_ORDER_MARK = "\xEF\xBB\xBF"

-- How files of other kinds begin, and what to do about them.
local OTHER_KINDS = {
    { "^\x1F\x8B", "is compressed with gzip; unpack it first, with gunzip" },
    { "^\xFD7zXZ", "is compressed with xz; unpack it first, with unxz" },
    { "^%(\xB5\x2F\xFD", "is compressed with zstd; unpack it first, with unzstd" },
    { "^BZh", "is compressed with bzip2; unpack it first, with bunzip2" },
    { "^PK\3\4", "is in a zip file; unpack it first, with unzip" },
    { "^\xFF\xFE", "is in UTF-16; convert it first, with iconv -f UTF-16 -t UTF-8" },
    { "^\xFE\xFF", "is in UTF-16; convert it first, with iconv -f UTF-16 -t UTF-8" },
    { "^#\0", "is in UTF-16; convert it first, with iconv -f UTF-16LE -t UTF-8" },
    { "^\0#", "is in UTF-16; convert it first, with iconv -f UTF-16BE -t UTF-8" },
    { "^%s*{", "is in JSON; have Zeek write TSV (LogAscii::use_json = F)" },
}

-- Skips a byte order mark.
local function check_format(file, path)
    local head = file:read(64) or ""
    local has_mark = head:sub(1, #BYTE_ORDER_MARK) == BYTE_ORDER_MARK
    file:seek("set", has_mark and #BYTE_ORDER_MARK or 0)
    for _, kind in ipairs(OTHER_KINDS) do
        if head:match(kind[1], has_mark and #BYTE_ORDER_MARK + 1 or 1) then
            fail("%s:1: the log %s", path, kind[2])
        end
    end
end

local header_handlers = {
    separator = function(format, value)
        format.separator = unescape(value)
    end,
    unset_field = function(format, value)
        format.unset = value
    end,
    empty_field = function(format, value)
        format.empty = value
    end,
    path = function(_, value, where)
        if value ~= "conn" then
            fail("%s: this is a log of '%s'; give a log of connections, conn.log", where, value)
        end
    end,
    fields = function(format, value, where)
        local names = split(value, format.separator)
        format.count, format.columns = #names, {}
        for column, name in ipairs(names) do
            format.columns[name] = column
        end
        for _, name in ipairs(REQUIRED_FIELDS) do
            if not format.columns[name] then
                fail("%s: #fields does not name '%s'; give a complete conn.log", where, name)
            end
        end
    end,
}

local function read_header(format, line, where)
    -- The line that declares the separator uses a space itself.
    local name, value = line:match("^#(separator) (.+)$")
    if not name then
        local parts = split(line:sub(2), format.separator)
        name, value = parts[1], table.concat(parts, format.separator, 2)
    end
    local handler = header_handlers[name]
    if handler then
        handler(format, value, where)
    end
end

-- The row's fields by name, or nil and what is wrong with it. Fields without a value are nil.
local function read_row(format, line)
    local parts = split(line, format.separator)
    if #parts ~= format.count then
        return nil, string.format("%d fields instead of %d", #parts, format.count)
    end
    local row = {}
    for name, column in pairs(format.columns) do
        local value = parts[column]
        if value ~= format.unset and value ~= format.empty and value ~= "" then
            row[name] = value
        end
    end
    if not row.proto then
        return nil, "no protocol"
    end
    local port = row["id.resp_p"]
    if not (port and port:match("^%d+$") and tonumber(port) <= 65535) then
        return nil, string.format("'%s' is no port", port or format.unset)
    end
    return row
end

-- Processes a line; where() says which one it is. Counts usable rows and others in `seen`.
local function read_line(format, line, where, use, seen)
    if line:sub(1, 1) == "#" then
        read_header(format, line, where())
    elseif line ~= "" then
        if not format.columns then
            fail("%s: a row comes before the #fields line; give a conn.log in Zeek's TSV format", where())
        end
        local row, reason = read_row(format, line)
        if row then
            use(row)
            seen.used = seen.used + 1
        else
            seen.skipped = seen.skipped + 1
            if #seen.malformed < MAX_SKIPPED then
                seen.malformed[#seen.malformed + 1] = { line = seen.lines, reason = reason }
            end
        end
    end
end

-- Passes each usable row to the function, and counts in `seen`, which says how far it got if it is interrupted.
local function read_log(path, use, seen)
    local file, message = io.open(path, "rb")
    if not file then
        fail("%s; give the name of a conn.log", message)
    end
    check_format(file, path)
    local format = { separator = "\t", unset = "-", empty = "(empty)" }
    local function where()
        return path .. ":" .. seen.lines
    end
    for line in file:lines() do
        seen.lines = seen.lines + 1
        read_line(format, line:gsub("\r$", ""), where, use, seen)
    end
    file:close()
    if not format.columns then
        fail("%s: there is no #fields line; give a conn.log in Zeek's TSV format", path)
    end
end

-- Connections as the module takes them ---------------------------------------------------------------

-- By where the originator and the responder are: local, not local, or unknown.
local DIRECTIONS = {
    TF = "outbound", FT = "inbound", TT = "internal", FF = "external",
    ["T?"] = "outbound", ["F?"] = "inbound",
}

local function direction_of(row)
    return DIRECTIONS[(row.local_orig or "?") .. (row.local_resp or "?")] or "unknown"
end

local function flags_of(row)
    local services = {}
    for service in (row.service or ""):gmatch("[^,]+") do
        services[service] = true
    end
    local flags = 0
    if services.ssl then
        flags = flags + FLAGS.ssl
    end
    if row.proto == "udp" then
        flags = flags + FLAGS.udp
    end
    if row.local_orig == "T" then
        flags = flags + FLAGS.outbound
    end
    -- These begin in the clear and go on under TLS.
    if services.ssl and (services.smtp or services.imap or services.ftp) then
        flags = flags + FLAGS.start_tls
    end
    return flags
end

local function add_connection(row)
    local kind = {
        { "flags", flags_of(row) },
        { "dst_port", row["id.resp_p"] },
        { "proto", row.proto },
        { "service", row.service or "-" },
        { "direction", direction_of(row) },
        { "conn_state", row.conn_state or "-" },
    }
    local key, lines = {}, {}
    for i, field in ipairs(kind) do
        key[i] = field[2]
        lines[i] = field[1] .. "\t" .. field[2]
    end
    SLB.filter.AddToConnMetrics(table.concat(key, "|"), table.concat(lines, "\n"), 1)
end

-- The result -----------------------------------------------------------------------------------------

local function drain_metrics()
    host.advance(FOLD_AFTER_SECONDS)
    SLB.filter.UpdateConnMetrics()
    return SLB.filter.GetConnMetrics()
end

-- Names of the row's flags that are set, in the order of the alphabet.
local function flag_names(row)
    local names = {}
    for name, value in pairs(row) do
        if name:match("^cf_") and value == 1 then
            names[#names + 1] = name
        end
    end
    table.sort(names)
    return names
end

-- How many characters of UTF-8.
local function width(text)
    return select(2, text:gsub("[^\128-\191]", ""))
end

-- columns: an array of { title, align }; rows: arrays of values in the same order.
local function print_table(columns, rows)
    local widths = {}
    for i, column in ipairs(columns) do
        widths[i] = width(column[1])
        for _, row in ipairs(rows) do
            widths[i] = math.max(widths[i], width(tostring(row[i])))
        end
    end
    local function print_row(values)
        local cells = {}
        for i, column in ipairs(columns) do
            local text = tostring(values[i])
            local padding = (" "):rep(widths[i] - width(text))
            cells[i] = column[2] == "right" and padding .. text or text .. padding
        end
        print(((" "):rep(2) .. table.concat(cells, "  ")):match("^(.-) *$"))
    end
    local titles = {}
    for i, column in ipairs(columns) do
        titles[i] = column[1]
    end
    print_row(titles)
    for _, row in ipairs(rows) do
        print_row(row)
    end
end

local function print_top(rows)
    local order = {}
    for i = 1, #rows do
        order[i] = i
    end
    table.sort(order, function(a, b)
        if rows[a].count ~= rows[b].count then
            return rows[a].count > rows[b].count
        end
        return a < b
    end)
    local cells = {}
    for i = 1, math.min(TOP, #order) do
        local row = rows[order[i]]
        local flags = table.concat(flag_names(row), " "):gsub("cf_", "")
        cells[i] = { row.count, row.proto, row.service, row.dst_port, row.direction, row.conn_state, flags }
    end
    print(string.format("\nThe most frequent %d of %d kinds:", #cells, #rows))
    print_table({
        { "count", "right" }, { "proto" }, { "service" }, { "port", "right" },
        { "direction" }, { "state" }, { "flags" },
    }, cells)
end

local function print_flags(rows)
    local totals, names = {}, {}
    for _, row in ipairs(rows) do
        for _, name in ipairs(flag_names(row)) do
            if not totals[name] then
                totals[name] = 0
                names[#names + 1] = name
            end
            totals[name] = totals[name] + row.count
        end
    end
    table.sort(names)
    local cells = {}
    for i, name in ipairs(names) do
        cells[i] = { totals[name], name }
    end
    print("\nConnections with each flag:")
    print_table({ { "count", "right" }, { "flag" } }, cells)
end

local function print_skipped(path, seen)
    for i = 1, math.min(MAX_REPORTED, seen.skipped) do
        local row = seen.malformed[i]
        io.stderr:write(string.format("connections: %s:%d: row skipped: %s\n", path, row.line, row.reason))
    end
    if seen.skipped > MAX_REPORTED then
        io.stderr:write(string.format("connections: and %d more rows\n", seen.skipped - MAX_REPORTED))
    end
end

-- Connections that were added and are in no row.
local function count_missing(used, rows)
    local counted = 0
    for _, row in ipairs(rows) do
        counted = counted + row.count
    end
    return used - counted
end

local function main(arguments)
    local options = parse_arguments(arguments)
    require "fc"
    local seen = { lines = 0, used = 0, skipped = 0, malformed = {} }
    local whole, message = pcall(read_log, options.log, add_connection, seen)
    if not whole and not host.interrupted() then
        error(message, 0)
    end
    print_skipped(options.log, seen)
    if seen.used == 0 then
        fail("%s has no usable row", options.log)
    end

    local rows = drain_metrics()
    local missing = count_missing(seen.used, rows)
    print(string.format("%s: %d connections, %d rows skipped", options.log, seen.used, seen.skipped))
    print_top(rows)
    print_flags(rows)
    if whole and missing ~= 0 then
        io.stderr:write(string.format(
            "connections: %d of %d connections are not counted: the module keeps %d kinds, and the log has more\n",
            missing, seen.used, MAX_KINDS))
    end

    local result = options.out:gsub("[/\\]$", "") .. "/connections.json"
    host.write_json(result, {
        log = options.log,
        interrupted = not whole,
        connections = seen.used,
        not_counted = math.max(missing, 0), -- the row at which it was interrupted may be counted already
        skipped = seen.skipped,
        skipped_rows = seen.malformed,
        kinds = rows,
    })
    if not whole then
        fail("interrupted in line %d; the result so far is in %s", seen.lines, result)
    end
    print("\nThe whole result is in " .. result)
end

main({ ... })
