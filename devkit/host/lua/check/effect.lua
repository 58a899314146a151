-- What the module would do with a text.
local module = require "module"
local texts = require "texts"

local effect = {}

local function list_limits(line)
    local parts = {}
    for _, name in ipairs { "rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t" } do
        local limit = line.limits[name] or 0
        if limit ~= 0 then
            parts[#parts + 1] = ("%s %s %s"):format(name, name == "frepct" and "below" or "above", texts.number_text(limit))
        end
    end
    return table.concat(parts, ", ")
end

local function describe_recovery(waits, limits)
    if limits.delta_t == 0 then
        return "Once in fail-open, the host never comes back."
    end
    if waits[1] == 0 then
        return ("Each call in fail-open is a recovery check; one succeeds only if the last two calls were at most %s s " ..
            "apart."):format(texts.number_text(limits.delta_t))
    end
    local minutes = {}
    for i, wait in ipairs(waits) do
        minutes[i] = tostring(wait)
    end
    return ("Recovery checks come after %s minutes, as long as they fail; one succeeds only if the last two calls were " ..
        "at most %s s apart."):format(table.concat(minutes, ", "), texts.number_text(limits.delta_t))
end

local function describe_off(tried)
    if tried.values.SYS_CONF_DISABLE_FAIL_OPEN == 1 then
        return "System health is switched off (action 2)."
    elseif tried.errors[1] and tried.errors[1]:find("monitoring port not configured", 1, true) then
        return "System health is off (action 2): the limits of refused and established connections and of scanned " ..
            "bytes need the port, and it is missing."
    end
    return "System health is off (action 2): no value is taken."
end

local function try_effect(policy, tried)
    if tried.action == module.DISABLED then
        return { effect = { describe_off(tried) }, waits = {} }
    end
    local waits, limits = module.try_waits(policy)
    local sentences = {}
    if tried.line then
        sentences[1] = "The filter fails open with " .. list_limits(tried.line) .. "."
    end
    sentences[#sentences + 1] = #waits > 0 and describe_recovery(waits, limits) or nil
    if tried.unload == "true" then
        sentences[#sentences + 1] = "Fail-open unloads the driver."
    end
    return { effect = sentences, waits = waits }
end

-- The module's behaviour depends on the values that it has taken and on the action alone.
function effect.describe(answer, policy, tried, known)
    local parts = { tostring(tried.action), tried.unload }
    for key, value in pairs(tried.values) do
        parts[#parts + 1] = ("%s=%.17g"):format(key, value)
    end
    table.sort(parts)
    local name = table.concat(parts, " ")
    known[name] = known[name] or try_effect(policy, tried)
    answer.effect, answer.waits = known[name].effect, known[name].waits
end

return effect
