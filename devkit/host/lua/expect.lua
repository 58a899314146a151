-- host.expect: expectations of scripts that test. One that is not met is an error in the script's line.
local host, suggestion, KINDS = ...

local expect = {}
local pending = {} -- events that no expectation has met yet

local function show(value, depth)
    if type(value) == "string" then
        return ("%q"):format(value)
    elseif type(value) ~= "table" or depth > 3 then
        return tostring(value)
    end
    local parts = {}
    for key, item in pairs(value) do
        parts[#parts + 1] = tostring(key) .. " = " .. show(item, depth + 1)
    end
    table.sort(parts)
    return "{ " .. table.concat(parts, ", ") .. " }"
end

local function is_same(a, b)
    if type(a) ~= "table" or type(b) ~= "table" then
        return a == b
    end
    for key, value in pairs(a) do
        if not is_same(value, b[key]) then
            return false
        end
    end
    for key in pairs(b) do
        if a[key] == nil then
            return false
        end
    end
    return true
end

-- Raises an error in the line that called the function of host.expect.
local function fail(text, ...)
    error(text:format(...), 3)
end

function expect.that(condition, text)
    if not condition then
        fail("%s", text or "this is not as expected")
    end
    return condition
end

function expect.equal(actual, expected, what)
    if not is_same(actual, expected) then
        fail("%s is %s, and %s is expected", what or "the value", show(actual, 1), show(expected, 1))
    end
    return actual
end

-- The message for a name that is none of the keys, with the nearest ones.
local function unknown(what, name, known)
    local names = {}
    for key in pairs(known) do
        names[#names + 1] = key
    end
    return ("%s '%s'%s"):format(what, tostring(name), suggestion(tostring(name), names))
end

local FIELDS = { kind = "string", number = "number", text = "string" }

local function check_wanted(wanted)
    if type(wanted) ~= "table" then
        error("bad argument #1 (table expected, got " .. type(wanted) .. ")", 3)
    end
    for name, value in pairs(wanted) do
        if not FIELDS[name] then
            error(unknown("there is no field", name, FIELDS), 3)
        elseif FIELDS[name] ~= type(value) then
            error(("field '%s': %s expected, got %s"):format(name, FIELDS[name], type(value)), 3)
        end
    end
    if wanted.kind and not KINDS[wanted.kind] then
        error(unknown("there is no kind of event", wanted.kind, KINDS), 3)
    end
end

local function matches(event, wanted)
    return (wanted.kind == nil or event.kind == wanted.kind) and (wanted.number == nil or event.number == wanted.number) and
        (wanted.text == nil or event.text:find(wanted.text, 1, true) ~= nil)
end

-- The place among the pending events of the oldest one that is wanted.
local function find_event(wanted)
    for _, event in ipairs(host.events()) do
        pending[#pending + 1] = event
    end
    for i, event in ipairs(pending) do
        if matches(event, wanted) then
            return i
        end
    end
end

local function pending_texts()
    local texts = {}
    for i, event in ipairs(pending) do
        texts[i] = ("%s %d %q"):format(event.kind, event.number, event.text)
    end
    return #texts > 0 and "there are " .. table.concat(texts, "; ") or "there are none"
end

function expect.event(wanted)
    check_wanted(wanted)
    local place = find_event(wanted)
    if not place then
        fail("no event %s has come; %s", show(wanted, 1), pending_texts())
    end
    return table.remove(pending, place)
end

function expect.no_event(wanted)
    wanted = wanted or {}
    check_wanted(wanted)
    local place = find_event(wanted)
    if place then
        local event = pending[place]
        fail("the event %s %d %q is not expected", event.kind, event.number, event.text)
    end
end

function expect.error(text, f, ...)
    local ok, message = pcall(f, ...)
    if ok then
        fail("no error is raised, and %q is expected", text)
    elseif not tostring(message):find(text, 1, true) then
        fail("the error is %q, and %q is expected", tostring(message), text)
    end
    return message
end

function expect.status(expected, script, ...)
    local status, output = host.run_script(script, ...)
    if status ~= expected then
        fail("%s ends with status %s, and %s is expected; it has printed %q", script, tostring(status), tostring(expected), output)
    end
    return output
end

host.expect = setmetatable(expect, {
    __index = function(_, name)
        error(unknown("host.expect has no function", name, expect), 2)
    end,
})
