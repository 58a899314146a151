-- The same work as the module's connection metrics, in plain Lua: the peer of the benchmark.
local peer = {}

local floor, ceil = math.floor, math.ceil
local extract = bit32.extract

local LIMIT = 10000
local NUMBERS = {
    flags = true, pid = true, dst_port = true, tls_version = true, cipher = true, container_type = true,
}
local FLAGS = {
    "cf_ssl_connection", "cf_udp_connection", "cf_outbound_connection", "cf_rsa_key_imported",
    "cf_nuagent_key_imported", "cf_do_dpi", "cf_nuagent_key_not_found", "cf_nuagent_key_error",
    "cf_start_tls", "cf_nuagent_fail_open", "cf_nuagent_throttled", "cf_nuagent_banned",
}

local entries, size = {}, 0

function peer.add(key, text, count)
    if type(key) ~= "string" or type(text) ~= "string" or type(count) ~= "number" then
        error("bad argument to 'add'", 2)
    end
    count = (count >= 0 and floor(count) or ceil(count)) % 4294967296
    if count == 0 then
        return
    end
    local entry = entries[key]
    if entry then
        entry.count = (entry.count + count) % 4294967296
    elseif size < LIMIT then
        entries[key] = { text = text, count = count }
        size = size + 1
    end
end

function peer.clear()
    entries, size = {}, 0
end

-- The rows in key order; the entries stay, so that a run can be repeated.
function peer.rows()
    local keys = {}
    for key in pairs(entries) do
        keys[#keys + 1] = key
    end
    table.sort(keys)
    local rows = {}
    for i = 1, #keys do
        local entry = entries[keys[i]]
        local row = {}
        for name, value in entry.text:gmatch("([^\t\n]*)\t?([^\n]*)\n?") do
            if NUMBERS[name] then
                local number = tonumber(value) or 0
                if name == "flags" then
                    for bit = 1, #FLAGS do
                        row[FLAGS[bit]] = extract(number, bit - 1)
                    end
                end
                row[name] = number
            elseif name ~= "" then
                row[name] = value
            end
        end
        row.count = entry.count
        rows[i] = row
    end
    return rows
end

return peer
