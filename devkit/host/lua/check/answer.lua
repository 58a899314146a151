-- What is told of one text.
local texts = require "texts"

local PORT, FACTOR = "SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_RECOVER_FACTOR"
local MIN_WAIT, MAX_WAIT = "SYS_CONF_MIN_ACT_DURATION", "SYS_CONF_MAX_ACT_DURATION"
local SWITCHES = { SYS_CONF_CONN_REFUSAL_OUTBOUND = true, SYS_CONF_UNLOAD_DRIVER = true, SYS_CONF_DISABLE_FAIL_OPEN = true }

local Answer = {}
Answer.__index = Answer

function Answer.new(text)
    local answer = setmetatable({ taken = {}, problems = {}, effect = {} }, Answer)
    answer:set_text(text)
    return answer
end

-- The text whose offsets the other functions take.
function Answer:set_text(text)
    self.text, self.place_of = text, texts.places_of(text)
end

function Answer:problem(offset, key, text, ...)
    local line, column = self.place_of(offset)
    self.problems[#self.problems + 1] =
        { line = line, column = column, key = key and texts.printable(key), text = select("#", ...) > 0 and text:format(...) or text }
end

function Answer:take(offset, row, value)
    local line, column = self.place_of(offset)
    self.taken[#self.taken + 1] = { line = line, column = column, key = row.shown, value = value }
end

-- What of a value that is taken may surprise.
function Answer:remark(offset, row, value)
    local text = texts.number_text(value)
    if SWITCHES[row.key] and value ~= 0 and value ~= 1 then
        self:problem(offset, row.shown, "%s does nothing: only 1 switches this on", text)
    elseif (row.key == MIN_WAIT or row.key == MAX_WAIT) and value < 1 then
        self:problem(offset, row.shown, "%s minutes count as 0: %s", text, row.key == MIN_WAIT and
            "there is no wait, and every call in fail-open is a recovery check" or
            "the first wait begins anew after each failed check")
    elseif (row.key == MIN_WAIT or row.key == MAX_WAIT or row.key == PORT) and value % 1 ~= 0 then
        self:problem(offset, row.shown, "%s is cut to %d", text, math.floor(value))
    elseif row.key == FACTOR and value == 0 then
        self:problem(offset, row.shown, "a factor of 0 keeps the host in fail-open for good: every limit of a recovery check is 0")
    end
end

-- Why the module has not taken a number.
function Answer.why_refused(row, number, values, zero_is_refused)
    if number ~= number or number > row.max then
        return ("%s is above the maximum, %s"):format(texts.number_text(number), texts.number_text(row.max))
    elseif number < 0 then
        return ("%s is below 0"):format(texts.number_text(number))
    elseif number == 0 and zero_is_refused then
        return zero_is_refused
    elseif number == 0 and (row.key == MIN_WAIT or row.key == MAX_WAIT) then
        return "0 minutes are discarded, so that the default applies"
    elseif row.key == MAX_WAIT and values[MIN_WAIT] and number < values[MIN_WAIT] then
        return ("%s is below the first wait of %s minutes, and discarded, so that the default applies"):format(
            texts.number_text(number), texts.number_text(values[MIN_WAIT]))
    end
end

function Answer:compare_values(expected, values)
    for key, value in pairs(values) do
        self.is_unexplained = self.is_unexplained or expected[key] ~= value
    end
    for key in pairs(expected) do
        self.is_unexplained = self.is_unexplained or values[key] == nil
    end
end

return Answer
