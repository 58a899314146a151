-- Checks policies and configuration files of system health by asking the module: fc-host runs this in a process of its
-- own, on a simulated machine.
--
--   check.lua FOLDER
--
-- FOLDER/request holds the kind ("policy" or "config") with "effects" or "values", the number of texts, and each text
-- behind its length, all on lines of their own. FOLDER/answer.json gets an array with an answer for each; with
-- "values" it does not tell what the module would do.

local FOLDER = ...
package.path = FOLDER .. "/?.lua"

local Answer = require "answer"
local config = require "config"
local effect = require "effect"
local module = require "module"
local policy = require "policy"

local function by_place(a, b)
    if a.line ~= b.line then
        return a.line < b.line
    end
    return a.column < b.column
end

local function judge(kind, text, rows, known)
    local answer = Answer.new(text)
    local is_policy = kind == "policy"
    local policy_text = is_policy and text or ""
    module.write_config(is_policy and "" or text)
    local tried = module.try(policy_text)
    if is_policy then
        policy.judge(answer, rows, tried)
    else
        config.judge(answer, rows, tried, known.lines)
        module.write_config(text)
    end
    if known.effects then
        effect.describe(answer, policy_text, tried, known.effects)
    end
    table.sort(answer.problems, by_place)
    return {
        ok = #answer.problems == 0, taken = answer.taken, problems = answer.problems,
        effect = known.effects and answer.effect, waits = answer.waits, values = tried.values, off = tried.action == module.DISABLED,
        unexplained = answer.is_unexplained or false,
    }
end

local function read_file(path)
    local file = assert(io.open(path, "rb"))
    local content = file:read("*a")
    file:close()
    return content
end

local function read_request()
    local request = read_file(FOLDER .. "/request")
    local kind, extent, count, at = request:match("^(%a+) (%a+)\n(%d+)\n()")
    local texts = {}
    for i = 1, tonumber(count) do
        local size, begin = request:match("^(%d+)\n()", at)
        texts[i] = request:sub(begin, begin + size - 1)
        at = begin + size
    end
    return kind, texts, extent == "effects"
end

local kind, requested, wants_effects = read_request()
host.machine.processor_queue = 0
module.use(FOLDER .. "/agent", wants_effects)
local rows = module.learn_rows()
local known = { lines = {}, effects = wants_effects and {} or nil }
local answers = {}
for i, text in ipairs(requested) do
    answers[i] = judge(kind, text, rows, known)
end
host.write_json(FOLDER .. "/answer.json", answers)
