-- An agent's day: asks the module every 30 seconds whether the filter should fail open, and acts on the answer.
--
--   fc-host --clock steps --quiet --report out/health.html examples/health.lua [--out DIR]
--
-- The machine, the driver and the clock are simulated; the clock advances only while all wait, so each run prints the
-- same. The configuration is vt_filter.conf beside this script; the policy that arrives in the evening is policy.json.
-- The module's files are written below DIR/agent (out/agent). The exit code is 1 if the day did not go as planned.

local PERIOD_SECONDS = 30 -- from 45 on, the interval itself would be past its limit
local HOUR, MINUTE = 3600, 60
local DAY_SECONDS = 24 * HOUR
local DAY_BEGINS = 1772409600 -- 2 March 2026, 00:00 UTC
local EVENT_FAIL_OPEN, EVENT_RECOVERED = 1, 2 -- this agent's own numbers
local PROCESSORS = 8
local MEMORY_BYTES = 32 * 2 ^ 30
local MIB = 2 ^ 20
local WAIT_SETTING = "vtp.filter.SysHealthBackoffWait"
local CHECK_SETTING = "vtp.filter.SysHealthLastRecoveryCheck"

local ACTION = { NORMAL = 0, FAIL_OPEN = 1, DISABLED = 2 } -- others contain no decision

local function fail(...)
    io.stderr:write("health: ", string.format(...), "\n")
    os.exit(1)
end

-- The command line ---------------------------------------------------------------------------------

local function parse_arguments(arguments)
    local options = { out = "out" }
    if arguments[1] == "--out" then
        options.out = arguments[2] or fail("--out needs the name of a folder")
    elseif arguments[1] then
        fail("unknown argument '%s'; usage: health.lua [--out DIR]", arguments[1])
    end
    if not pcall(host.advance, 0) then
        fail("a day takes a simulated clock: start fc-host with --clock steps")
    end
    return options
end

local here = arg[0]:match("^(.*[/\\])") or ""

local function read_file(name)
    local file, message = io.open(here .. name, "rb")
    if not file then
        fail("%s", message)
    end
    local content = file:read("*a")
    file:close()
    return content
end

-- Creates a folder for the agent's files, with the configuration.
local function install_configuration(folder)
    host.use_program_data(folder)
    local path = folder .. "/filter/vt_filter.conf"
    local file, message = io.open(path, "wb")
    if not file then
        fail("%s", message)
    end
    file:write(read_file("vt_filter.conf"))
    file:close()
end

-- The day --------------------------------------------------------------------------------------------

local function at(hour, minute)
    return hour * HOUR + (minute or 0) * MINUTE
end

local function between(time, from, to)
    return time >= from and time < to
end

-- The same numbers in every run, from 0 to 1.
local noise_state = 20260302
local function noise()
    noise_state = (noise_state * 1103515245 + 12345) % 2 ^ 31
    return noise_state / 2 ^ 31
end

-- How busy users keep the host, from 0 to 1.
local function office_hours(time)
    return math.max(0, math.sin((time - at(6)) / at(14) * math.pi)) ^ 2
end

-- From 0 at the first time to 1 at the second.
local function ramp(time, from, to)
    return math.min(1, math.max(0, (time - from) / (to - from)))
end

-- The load of the machine and the driver at a time of the day, the driver's per second.
local function load_at(time)
    local busy = office_hours(time)
    local load = {
        queue = 2 + 14 * busy + 6 * noise(),
        free = 0.62 - 0.2 * busy + 0.02 * noise(),
        new = 20 + 400 * busy + 40 * noise(),
        refused = 0.02 + 0.02 * noise(),
        established = 100 + 1200 * busy + 150 * noise(),
        scanned = (6 + 80 * busy + 12 * noise()) * MIB,
    }
    if between(time, at(8, 30), at(11)) then -- a build on all processors
        load.queue = load.queue + 62 * ramp(time, at(8, 30), at(8, 50)) - 50 * ramp(time, at(10, 40), at(11))
    elseif between(time, at(13), at(13, 25)) then -- a service behind the filter turns clients away
        load.refused = 0.34 + 0.06 * noise()
    elseif between(time, at(18, 30), at(19, 30)) then -- the backup
        load.queue = load.queue + 52
        load.scanned = load.scanned + 380 * MIB
    elseif between(time, at(20), at(21, 20)) then -- a leak, until its process is restarted
        load.free = load.free - 0.58 * ramp(time, at(20), at(21, 10))
    end
    return load
end

-- Events besides the load. Each has a description, and a function that applies it to the agent.
local incidents = {
    { at(8, 30), "A build begins on all processors" },
    { at(10, 20), "The agent is restarted", function(agent) agent:restart() end },
    { at(10, 40), "The build comes to its end" },
    { at(13), "A service behind the filter turns clients away" },
    { at(13, 25), "The service takes clients again" },
    { at(15, 30), "The driver fails",
        function() host.driver.set_fault("vti_get_scan_metrics", -5, "the counters are locked") end },
    { at(16), "The driver is gone", function() host.driver.present = false end },
    { at(17), "The driver is back, and counts from zero", function(agent) agent:restart_driver() end },
    { at(18), "A policy comes from the cloud: higher limits, shorter waits",
        function(agent) agent.cloud_config = read_file("policy.json") end },
    { at(18, 30), "The backup begins; the limits of the file would not let it pass" },
    { at(19, 30), "The backup ends" },
    { at(20), "A process begins to leak memory" },
    { at(21, 20), "The process is started anew" },
    { at(22), "The policy is withdrawn; the file counts again", function(agent) agent.cloud_config = "" end },
}

-- The agent --------------------------------------------------------------------------------------------

local function clock_text(time)
    return string.format("%02d:%02d:%02d", math.floor(time / HOUR), math.floor(time / MINUTE) % 60, time % 60)
end

local Agent = {}
Agent.__index = Agent

local function new_agent()
    return setmetatable({
        dom = host.dom(),
        state = "Deactivated",
        cloud_config = "",
        totals = { 0, 0, 0, 0, 0, 0, 0, 0, 0, 0 }, -- what the driver has counted since it was started
        time = 0, -- of the day
        since = nil, -- in fail-open
        summary = { iterations = 0, fail_opens = 0, recoveries = 0, failed_checks = 0, fail_open_seconds = 0 },
    }, Agent)
end

function Agent:tell(what, why)
    print(clock_text(self.time) .. "  " .. what .. (why and why ~= "" and ": " .. why or ""))
end

-- The filter's state and the agent's settings outlive the restart; the module's own memory does not.
function Agent:restart()
    host.restart_module()
    require "fc"
    self:tell(string.format("  the wait of %s minutes goes on", host.get_setting(WAIT_SETTING)))
end

function Agent:restart_driver()
    host.driver.clear_faults()
    host.driver.present = true
    for i in ipairs(self.totals) do
        self.totals[i] = 0
    end
end

function Agent:put_under_load()
    local load = load_at(self.time)
    host.machine.processor_queue = load.queue
    host.machine.memory_available = math.floor(load.free * MEMORY_BYTES)
    local per_second = {
        load.new, 0, load.established, load.new * load.refused, 0, 0, load.scanned * 0.7, load.scanned * 0.3, 0, 0,
    }
    for i, rate in ipairs(per_second) do
        self.totals[i] = self.totals[i] + math.floor(rate * PERIOD_SECONDS)
    end
    host.driver.set_counters(self.totals)
end

-- The metrics that are past their limits, in words. The read-out has whole numbers.
local function metrics_past_limits()
    local _, metrics = SLB.filter.GetSysHealthMetrics()
    local texts = {}
    for i = 1, 6 do
        local metric = metrics[i]
        local is_floor = metric.name == "frepct"
        local is_past = metric.value >= metric.threshold
        if is_floor then
            is_past = metric.value < metric.threshold
        end
        if metric.threshold > 0 and is_past then
            local sign = is_floor and "under" or "over"
            texts[#texts + 1] = string.format("%s %d is %s %d", metric.name, metric.value, sign, metric.threshold)
        end
    end
    return table.concat(texts, ", ")
end

local function wait_minutes()
    return tonumber(host.get_setting(WAIT_SETTING)) or 0
end

function Agent:fail_open()
    self.state, self.since = "Activated", self.time
    self.summary.fail_opens = self.summary.fail_opens + 1
    local why = metrics_past_limits()
    self:tell("FAIL-OPEN", why)
    host.send_event(EVENT_FAIL_OPEN, "The filter fails open: " .. why)
end

function Agent:recover()
    local seconds = self.time - self.since
    self.state, self.since = "Deactivated", nil
    self.summary.recoveries = self.summary.recoveries + 1
    self.summary.fail_open_seconds = self.summary.fail_open_seconds + seconds
    self:tell("RECOVERED", string.format("after %d minutes", math.floor(seconds / MINUTE + 0.5)))
    host.send_event(EVENT_RECOVERED, "The filter is back")
end

-- Still in fail-open: reports a wait that begins, and a check that failed.
function Agent:stay_open(wait_before, check_before)
    local wait = wait_minutes()
    if wait_before == 0 then
        self:tell(string.format("  waiting %d minutes for the first recovery check", wait))
    elseif host.get_setting(CHECK_SETTING) ~= check_before then -- the wait itself stays the same at its cap
        self.summary.failed_checks = self.summary.failed_checks + 1
        self:tell(string.format("  recovery check failed, the next one is in %d minutes", wait))
    end
end

-- One iteration: does what the module says.
function Agent:check()
    local wait_before, check_before = wait_minutes(), host.get_setting(CHECK_SETTING)
    local action = SLB.filter.CheckSystemHealthMetrics(self.dom, self.state, self.cloud_config).action
    self.summary.iterations = self.summary.iterations + 1
    if action == ACTION.FAIL_OPEN and self.state == "Deactivated" then
        self:fail_open()
    elseif action == ACTION.FAIL_OPEN then
        self:stay_open(wait_before, check_before)
    elseif action == ACTION.NORMAL and self.state == "Activated" then
        self:recover()
    elseif action == ACTION.DISABLED and self.state == "Activated" then
        self:recover()
    elseif action ~= ACTION.NORMAL then
        fail("%s: the module answers %d", clock_text(self.time), action)
    end
end

function Agent:take_incidents()
    while incidents[1] and incidents[1][1] <= self.time do
        local incident = table.remove(incidents, 1)
        self:tell("* " .. incident[2])
        host.mark(incident[2])
        if incident[3] then
            incident[3](self)
        end
    end
end

local function wait_until(time)
    host.advance(math.max(0, time - host.time()))
end

local function live_through_the_day(agent)
    for time = 0, DAY_SECONDS - PERIOD_SECONDS, PERIOD_SECONDS do
        wait_until(DAY_BEGINS + time)
        agent.time = time
        agent:take_incidents()
        agent:put_under_load()
        agent:check()
    end
end

local function print_summary(summary)
    print(string.format("\n%d iterations; %d times into fail-open, %d minutes in all; %d recoveries, %d failed checks",
        summary.iterations, summary.fail_opens, math.floor(summary.fail_open_seconds / MINUTE + 0.5),
        summary.recoveries, summary.failed_checks))
end

local function main(arguments)
    local options = parse_arguments(arguments)
    install_configuration(options.out:gsub("[/\\]$", "") .. "/agent")
    host.machine.processors = PROCESSORS
    host.machine.memory_total = MEMORY_BYTES

    require "fc"
    local agent = new_agent()
    host.set_wall_clock(DAY_BEGINS)
    live_through_the_day(agent)
    print_summary(agent.summary)
    host.expect.equal(agent.state, "Deactivated", "the state in the evening")
    host.expect.equal(agent.summary.recoveries, agent.summary.fail_opens, "the number of recoveries")
end

main({ ... })
