-- Asks the module itself, which runs on this host's machine.
local UNLOAD_SETTING = "vtp.filter.FailOpenUnloadDriver"
local DISABLED = 2 -- the action
local MAX_CHECKS = 12

-- All that is written here of the module's values; their keys in the policy, bounds and kinds are asked of it.
local FILE_KEYS = {
    "SYSTEM_CONNECTION_REFUSAL_PORT=", "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYSTEM_RECOVERY_FACTOR=",
    "SYSTEM_MIN_ACT_DURATION=", "SYSTEM_MAX_ACT_DURATION=", "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=",
    "SYSTEM_RUNQ_PCT_THRESHOLD=", "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=",
    "SYSTEM_MIN_FREE_MEM_PCT=", "SYSTEM_MAX_ITERATION_INTERVAL=", "SYSTEM_UNLOAD_DRIVER=", "SYSTEM_DISABLE_FAIL_OPEN=",
}

local module = { DISABLED = DISABLED }
local config_file, values_file
local written -- the content of the configuration file
local has_whole_iterations

-- agent: the folder of its files. Without whole iterations the module only reads its values: that takes no 100 ms, and
-- leaves nothing behind.
function module.use(agent, whole_iterations)
    config_file, values_file = agent .. "/filter/vt_filter.conf", agent .. "/diag/vt_filter_json.log"
    has_whole_iterations = whole_iterations
    if not whole_iterations then
        host.fault { call = "PdhOpenQueryW", fail = 5 } -- an iteration ends there
    end
    host.use_program_data(agent)
    host.set_verbose_log(true)
    require "fc"
end

function module.write_config(content)
    if content == written then
        return
    end
    local file = assert(io.open(config_file, "wb"))
    file:write(content)
    file:close()
    written = content
end

-- The values in use by their keys, and those that are thresholds.
function module.read_values()
    local values, thresholds = {}, {}
    for key, value in pairs(host.read_json(values_file)) do
        thresholds[key] = type(value) == "table"
        values[key] = thresholds[key] and value.value or value
    end
    return values, thresholds
end

-- One iteration, and what it says in the log: the fields of the long line, and the errors.
function module.iterate(state, policy)
    host.log()
    local action = SLB.filter.CheckSystemHealthMetrics(host.dom(), state, policy).action
    local line, errors = nil, {}
    for _, logged in ipairs(host.log()) do
        if logged.text:find("^SysHealth: rc=") then
            line = { backoff = tonumber(logged.text:match(" backoff=(%d+)")), limits = {} }
            for name, limit in logged.text:gmatch("([%w_]+)=[^ ()]+%(([^()]*)%)") do
                line.limits[name] = tonumber(limit) or math.huge
            end
        elseif logged.level == "error" then
            errors[#errors + 1] = logged.text
        end
    end
    return action, line, errors
end

-- As if nothing had been called yet: a policy that switches system health off ends the wait of the fail-open.
local function forget()
    if has_whole_iterations then
        module.iterate("Deactivated", '{"SYS_CONF_DISABLE_FAIL_OPEN":1}')
    end
end

function module.try(policy)
    forget()
    host.set_setting(UNLOAD_SETTING, "untouched")
    host.traces()
    local tried = {}
    tried.action, tried.line, tried.errors = module.iterate("Deactivated", policy)
    tried.values, tried.thresholds = module.read_values()
    tried.unload = host.get_setting(UNLOAD_SETTING)
    tried.is_read = tried.unload ~= "untouched"
    return tried
end

local function try_config(content)
    module.write_config(content)
    return module.try("")
end

-- The waits of a fail-open whose checks all fail, and the limits in such a check.
function module.try_waits(policy)
    forget()
    local waits, limits = {}, nil
    for check = 1, MAX_CHECKS do
        local action, line = module.iterate("Activated", policy)
        if action == DISABLED or not line then
            return {}, {}
        end
        limits = check == 2 and line.limits or limits
        if line.backoff ~= waits[#waits] then
            waits[#waits + 1] = line.backoff
        elseif check > 2 then
            break
        end
        host.advance(line.backoff * 60 + 65) -- past the wait, and past every limit of the time between two calls
    end
    return waits, limits
end

-- The table of values, as the module has it.
function module.learn_rows()
    local rows = {}
    for _, file_key in ipairs(FILE_KEYS) do
        local row = { file_key = file_key }
        local tried = try_config(file_key .. "1\n")
        row.key = assert(next(tried.values), file_key)
        row.is_threshold = tried.thresholds[row.key]
        local refused = try_config(file_key .. "1e30\n").errors[1]
        row.max = assert(tonumber(refused:match("max= ([%d.]+)")), refused)
        rows[#rows + 1] = row
        rows[row.key:lower()], rows[file_key] = row, row
    end
    return rows
end

return module
