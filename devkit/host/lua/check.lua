-- Checks policies and configuration files of system health by asking the module: fc-host runs this in a process of its
-- own, on a simulated machine.
--
--   check.lua FOLDER
--
-- FOLDER/request holds the kind ("policy" or "config") with "effects" or "values", the number of texts, and each text
-- behind its length, all on lines of their own. FOLDER/answer.json gets an array with an answer for each; with
-- "values" it does not tell what the module would do.

local FOLDER = ...
local AGENT = FOLDER .. "/agent"
local CONFIG_FILE, VALUES_FILE = AGENT .. "/filter/vt_filter.conf", AGENT .. "/diag/vt_filter_json.log"
local UNLOAD_SETTING = "vtp.filter.FailOpenUnloadDriver"
local DISABLED = 2 -- the action
local READ_BYTES = 1023 -- of a line of the file, at a time
local MAX_DEPTH, MAX_NUMBER = 1000, 65536 -- of JSON that the module parses
local MAX_CHECKS = 12

-- All that is written here of the module's values; their keys in the policy, bounds and kinds are asked of it.
local FILE_KEYS = {
    "SYSTEM_CONNECTION_REFUSAL_PORT=", "SYSTEM_CONNECTION_REFUSAL_OUTBOUND=", "SYSTEM_RECOVERY_FACTOR=",
    "SYSTEM_MIN_ACT_DURATION=", "SYSTEM_MAX_ACT_DURATION=", "SYSTEM_CONNECTION_REFUSAL_PCT_THRESHOLD=",
    "SYSTEM_RUNQ_PCT_THRESHOLD=", "SYSTEM_CONNECTION_ESTABLISHED_PER_CPU=", "SYSTEM_TOTAL_SCAN_MBYTES_PER_CPU=",
    "SYSTEM_MIN_FREE_MEM_PCT=", "SYSTEM_MAX_ITERATION_INTERVAL=", "SYSTEM_UNLOAD_DRIVER=", "SYSTEM_DISABLE_FAIL_OPEN=",
}
local PORT, FACTOR = "SYS_CONF_CONN_REFUSAL_PORT", "SYS_CONF_RECOVER_FACTOR"
local MIN_WAIT, MAX_WAIT = "SYS_CONF_MIN_ACT_DURATION", "SYS_CONF_MAX_ACT_DURATION"
local SWITCHES = { SYS_CONF_CONN_REFUSAL_OUTBOUND = true, SYS_CONF_UNLOAD_DRIVER = true, SYS_CONF_DISABLE_FAIL_OPEN = true }

local function printable(text)
    text = text:gsub("[%z\1-\31\127]", function(c) return ("\\x%02X"):format(c:byte()) end)
    return #text > 60 and text:sub(1, 57) .. "..." or text
end

local function number_text(number)
    return ("%.10g"):format(number)
end

local function place_of(text, offset)
    local before = text:sub(1, offset - 1)
    local _, lines = before:gsub("\n", "")
    local _, continued = before:match("[^\n]*$"):gsub("[\128-\191]", "")
    return lines + 1, #before:match("[^\n]*$") - continued + 1
end

-- The module ---------------------------------------------------------------------------------------------

local function read_file(path)
    local file = assert(io.open(path, "rb"))
    local content = file:read("*a")
    file:close()
    return content
end

local function write_config(content)
    local file = assert(io.open(CONFIG_FILE, "wb"))
    file:write(content)
    file:close()
end

-- The values in use by their keys, and those that are thresholds.
local function read_values()
    local values, thresholds = {}, {}
    for key, value in pairs(host.read_json(VALUES_FILE)) do
        thresholds[key] = type(value) == "table"
        values[key] = thresholds[key] and value.value or value
    end
    return values, thresholds
end

-- One iteration, and what it says in the log: the fields of the long line, and the errors.
local function iterate(state, policy)
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
    iterate("Deactivated", '{"SYS_CONF_DISABLE_FAIL_OPEN":1}')
end

local function try(policy)
    forget()
    host.set_setting(UNLOAD_SETTING, "untouched")
    host.traces()
    local tried = {}
    tried.action, tried.line, tried.errors = iterate("Deactivated", policy)
    tried.values, tried.thresholds = read_values()
    tried.unload = host.get_setting(UNLOAD_SETTING)
    tried.is_read = tried.unload ~= "untouched"
    return tried
end

local function try_config(content)
    write_config(content)
    return try("")
end

-- The waits of a fail-open whose checks all fail, and the limits in such a check.
local function try_waits(policy)
    forget()
    local waits, limits = {}, nil
    for check = 1, MAX_CHECKS do
        local action, line = iterate("Activated", policy)
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
local function learn_rows()
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

-- Names that are nearly right -------------------------------------------------------------------------------

local function distance(a, b)
    local row = {}
    for j = 0, #b do
        row[j] = j
    end
    for i = 1, #a do
        local diagonal = row[0]
        row[0] = i
        for j = 1, #b do
            local cost = a:byte(i) == b:byte(j) and 0 or 1
            diagonal, row[j] = row[j], math.min(row[j] + 1, row[j - 1] + 1, diagonal + cost)
        end
    end
    return row[#b]
end

local function nearest(name, names)
    local best, least = nil, math.max(3, math.floor(#name / 3)) + 1
    for _, other in ipairs(names) do
        local far = #name < 80 and distance(name:upper(), other) or least
        if far < least then
            best, least = other, far
        end
    end
    return best
end

local function suggestion(name, names)
    local best = nearest(name, names)
    return best and "; the nearest is " .. best or ""
end

local function names_of(rows, field)
    local names = {}
    for i, row in ipairs(rows) do
        names[i] = row[field]:gsub("=", "")
    end
    return names
end

-- Where things are in a policy ------------------------------------------------------------------------------

local Scanner = {}
Scanner.__index = Scanner

function Scanner:fail(text, offset)
    error({ offset = offset or self.at, text = text }, 0)
end

function Scanner:skip_blanks()
    self.at = self.text:find("[^\1-\32]", self.at) or #self.text + 1
    return self.text:sub(self.at, self.at)
end

local ESCAPES = { b = "\b", f = "\f", n = "\n", r = "\r", t = "\t", ['"'] = '"', ["\\"] = "\\", ["/"] = "/" }

function Scanner:unicode(offset)
    local code = tonumber(self.text:match("^u(%x%x%x%x)", offset) or self:fail("this is no \\uXXXX", offset - 1), 16)
    if code >= 0xDC00 and code <= 0xDFFF then
        self:fail("a second half of a \\uXXXX pair has no first one", offset - 1)
    elseif code >= 0xD800 and code <= 0xDBFF then
        local second = tonumber(self.text:match("^\\u(%x%x%x%x)", offset + 5) or "0", 16)
        if second < 0xDC00 or second > 0xDFFF then
            self:fail("a first half of a \\uXXXX pair has no second one", offset - 1)
        end
        return "?", 11
    end
    return code < 128 and string.char(code) or "?", 5
end

function Scanner:string()
    local parts, at = {}, self.at + 1
    while true do
        local stop = self.text:find('["\\]', at) or self:fail("a text is not closed by a double quote")
        parts[#parts + 1] = self.text:sub(at, stop - 1)
        if self.text:sub(stop, stop) == '"' then
            self.at = stop + 1
            return table.concat(parts)
        end
        local escaped, length = ESCAPES[self.text:sub(stop + 1, stop + 1)], 1
        if not escaped then
            escaped, length = self:unicode(stop + 1)
        end
        parts[#parts + 1] = escaped
        at = stop + 1 + length
    end
end

function Scanner:number()
    if #self.text:match("^[%d+%-.eE]*", self.at) > MAX_NUMBER then
        self:fail("a number has more than " .. MAX_NUMBER .. " characters")
    end
    -- Part by part: one pattern would go back and forth between them in a long number.
    local digits_end = self.text:match("^-?%d*()", self.at)
    local fraction_end = self.text:match("^%.%d*()", digits_end) or digits_end
    local raw = self.text:sub(self.at, fraction_end - 1)
    if not raw:find("%d") then
        self:fail("this is no number")
    end
    raw = raw .. (self.text:match("^[eE][+-]?%d+", fraction_end) or "")
    self.at = self.at + #raw
    return raw
end

local WORDS = { "null", "false", "true" }

function Scanner:value()
    local first = self:skip_blanks()
    local value = { offset = self.at }
    if first == '"' then
        value.kind, value.string = "text", self:string()
    elseif first == "{" or first == "[" then
        value.kind = first == "{" and "object" or "array"
        value.members = self:members(first)
    elseif first:find("[%d-]") then
        value.kind = "number"
        value.number = tonumber(self:number())
    else
        value.kind = self:word(first)
    end
    value.raw = self.text:sub(value.offset, self.at - 1)
    return value
end

function Scanner:word(first)
    for _, word in ipairs(WORDS) do
        if self.text:sub(self.at, self.at + #word - 1) == word then
            self.at = self.at + #word
            return word
        end
    end
    if first == "" then
        self:fail("the text ends where a value is expected")
    elseif first == "'" then
        self:fail("texts of JSON stand in double quotes")
    elseif first == "/" or first == "#" then
        self:fail("JSON has no comments")
    end
    self:fail("a value is expected here")
end

function Scanner:key(comma)
    local first = self:skip_blanks()
    if first == "}" and comma then
        self:fail("there is a comma behind the last member, which JSON does not have", comma)
    elseif first == "'" then
        self:fail("keys of JSON stand in double quotes, not in single ones")
    elseif first == "/" or first == "#" then
        self:fail("JSON has no comments")
    elseif first ~= '"' then
        self:fail("a key in double quotes is expected here")
    end
    local member = { key_offset = self.at, key = self:string():match("^[^%z]*") }
    if self:skip_blanks() ~= ":" then
        self:fail("a colon is expected behind the key")
    end
    self.at = self.at + 1
    return member
end

function Scanner:members(open)
    local close, members, comma = open == "{" and "}" or "]", {}, nil
    self.depth = self.depth + 1
    if self.depth > MAX_DEPTH then
        self:fail("this is nested more than " .. MAX_DEPTH .. " levels deep")
    end
    self.at = self.at + 1
    if self:skip_blanks() == close then
        self.at = self.at + 1
        self.depth = self.depth - 1
        return members
    end
    while true do
        local member = open == "{" and self:key(comma) or {}
        if open == "[" and comma and self:skip_blanks() == "]" then
            self:fail("there is a comma behind the last item, which JSON does not have", comma)
        end
        member.value = self:value()
        members[#members + 1] = member
        local separator = self:skip_blanks()
        comma = self.at
        self.at = self.at + 1
        if separator == close then
            self.depth = self.depth - 1
            return members
        elseif separator ~= "," then
            self:fail("a comma or " .. close .. " is expected here", comma)
        end
    end
end

-- The value of the text; or nil, and an error with `offset` and `text`.
local function scan(text)
    local begin = text:sub(1, 3) == "\239\187\191" and #text >= 4 and 4 or 1
    local scanner = setmetatable({ text = text, at = begin, depth = 0 }, Scanner)
    local ok, result = pcall(scanner.value, scanner)
    if ok then
        return result, nil, scanner.at
    elseif type(result) ~= "table" then
        error(result, 0)
    end
    return nil, result
end

local function member_of(object, key)
    for _, member in ipairs(object.members) do
        if member.key and member.key:lower() == key then
            return member.value
        end
    end
end

-- Judgements --------------------------------------------------------------------------------------------------

local Answer = {}
Answer.__index = Answer

local function new_answer(text)
    return setmetatable({ text = text, taken = {}, problems = {}, effect = {} }, Answer)
end

function Answer:problem(offset, key, text, ...)
    local line, column = place_of(self.text, offset)
    self.problems[#self.problems + 1] =
        { line = line, column = column, key = key and printable(key), text = select("#", ...) > 0 and text:format(...) or text }
end

function Answer:take(offset, row, value)
    local line, column = place_of(self.text, offset)
    self.taken[#self.taken + 1] = { line = line, column = column, key = row.shown, value = value }
end

-- What of a value that is taken may surprise.
function Answer:remark(offset, row, value)
    local text = number_text(value)
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
local function why_refused(row, number, values, zero_is_refused)
    if number ~= number or number > row.max then
        return ("%s is above the maximum, %s"):format(number_text(number), number_text(row.max))
    elseif number < 0 then
        return ("%s is below 0"):format(number_text(number))
    elseif number == 0 and zero_is_refused then
        return zero_is_refused
    elseif number == 0 and (row.key == MIN_WAIT or row.key == MAX_WAIT) then
        return "0 minutes are discarded, so that the default applies"
    elseif row.key == MAX_WAIT and values[MIN_WAIT] and number < values[MIN_WAIT] then
        return ("%s is below the first wait of %s minutes, and discarded, so that the default applies"):format(
            number_text(number), number_text(values[MIN_WAIT]))
    end
end

local KIND_TEXTS = { text = "a text in quotes", object = "an object", array = "an array", null = "null",
    ["true"] = "true", ["false"] = "false" }

function Answer:judge_threshold(row, member, values)
    local item = member.value
    if item.kind == "number" then
        return self:problem(item.offset, row.shown, 'a bare number is left out: a threshold is written { "value": %s }',
            printable(item.raw))
    elseif item.kind ~= "object" then
        return self:problem(item.offset, row.shown, '%s is left out: a threshold is written { "value": NUMBER }',
            KIND_TEXTS[item.kind])
    end
    local value = member_of(item, "value")
    if not value then
        return self:problem(item.offset, row.shown, 'the object has no "value", and is left out')
    elseif value.kind ~= "number" then
        return self:problem(value.offset, row.shown, "%s is left out: a number without quotes is expected",
            KIND_TEXTS[value.kind])
    end
    self:judge_number(row, value, values[row.key], values, "a threshold has to be above 0")
end

function Answer:judge_number(row, item, value, values, zero_is_refused)
    if value then
        self:take(item.offset, row, value)
        return self:remark(item.offset, row, value)
    end
    local reason = why_refused(row, item.number, values, zero_is_refused)
    self:problem(item.offset, row.shown, "%s", reason or "the module does not take it")
    self.is_unexplained = self.is_unexplained or not reason
end

function Answer:judge_setting(row, member, values)
    local item, value = member.value, values[row.key]
    if item.kind == "number" then
        return self:judge_number(row, item, value, values)
    end
    self:problem(item.offset, row.shown, "%s counts as 0: a number without quotes is expected", KIND_TEXTS[item.kind])
    if value then
        self:take(item.offset, row, value)
        self:remark(item.offset, row, value)
    end
end

function Answer:judge_members(rows, members, values)
    local seen = {}
    for _, member in ipairs(members) do
        local row = rows[member.key:lower()]
        local in_file = rows[member.key:upper() .. "="]
        if in_file then
            self:problem(member.key_offset, member.key, "this is a key of vt_filter.conf; in a policy it is %s", in_file.key)
        elseif not row then
            self:problem(member.key_offset, member.key, "there is no such key%s",
                suggestion(member.key, names_of(rows, "key")))
        elseif seen[row] then
            self:problem(member.key_offset, row.key, "this is here a second time; only the first one counts")
        else
            seen[row] = true
            row.shown = row.key
            local judge = row.is_threshold and self.judge_threshold or self.judge_setting
            judge(self, row, member, values)
        end
    end
end

function Answer:judge_policy(rows, tried)
    local text = self.text:match("^[^%z]*")
    if #text < #self.text then
        self:problem(#text + 1, nil, "a zero byte ends the text here")
    end
    if text == "" then
        self:problem(1, nil, self.text == "" and "an empty policy stands for none: the module reads vt_filter.conf instead" or
            "the policy is empty")
        self.is_unexplained = self.is_unexplained or (self.text ~= "" and tried.is_read)
        return
    end
    local root, fault, behind = scan(text)
    self.is_unexplained = (root ~= nil) ~= tried.is_read
    if not root then
        return self:problem(fault.offset, nil, "%s; text that is no JSON sets nothing", fault.text)
    elseif root.kind ~= "object" then
        self:problem(root.offset, nil, "a policy is an object in { }; nothing of this is taken")
    else
        self:judge_members(rows, root.members, tried.values)
    end
    if text:find("[^\1-\32]", behind) then
        self:problem(text:find("[^\1-\32]", behind), nil, "the text behind the object is ignored")
    end
end

-- A configuration file ------------------------------------------------------------------------------------------

-- What the module reads at a time: lines, and parts of longer ones; `offset` in the content.
local function lines_of(content)
    local lines, at = {}, 1
    local stop = (content:find("\26", 1, true) or #content + 1) - 1
    while at <= stop do
        local last = math.min(content:find("\n", at, true) or stop, stop)
        local part_at = at
        for part = at, last, READ_BYTES do
            local text = content:sub(part, math.min(part + READ_BYTES - 1, last))
            lines[#lines + 1] = { offset = part, text = text:match("^[^%z\n]*"), is_rest = part > part_at }
        end
        at = last + 1
    end
    return lines, stop
end

function Answer:judge_strange_line(rows, line)
    local bare = line.text:gsub("^[%s\239\187\191]+", "")
    local name, blanks = bare:match("^([%w_.-]+)(%s*)=")
    if line.is_rest then
        if bare ~= "" then
            self:problem(line.offset, nil, "a line of more than %d characters goes on here as a line of its own", READ_BYTES)
        end
    elseif bare == "" or bare:find("^[#;/%[]") then
        return -- ignored, as is meant
    elseif not name then
        self:problem(line.offset, nil, "this is no setting: one is KEY=NUMBER, at the beginning of the line")
    else
        self:judge_strange_key(rows, line, name, blanks)
    end
end

function Answer:judge_strange_key(rows, line, name, blanks)
    local row, in_policy = rows[name:upper() .. "="], rows[name:lower()]
    if in_policy then
        self:problem(line.offset, name, "this is a key of policies; in the file it is %s", in_policy.file_key:gsub("=", ""))
    elseif not row then
        self:problem(line.offset, name, "there is no such key%s", suggestion(name, names_of(rows, "file_key")))
    elseif line.text:find("^\239\187\191") then
        self:problem(line.offset, name, "a byte order mark stands before the key, so that it is not found: save the file without one")
    elseif line.text:find("^%s") then
        self:problem(line.offset, name, "the key has to stand at the very beginning of its line")
    elseif blanks ~= "" then
        self:problem(line.offset, name, "there must be no blank before the =")
    else
        self:problem(line.offset, name, "keys of the file are in capitals: %s", name:upper())
    end
end

function Answer:judge_set_line(row, line, value, refused)
    local raw = line.text:sub(#row.file_key + 1)
    local offset = line.offset + #row.file_key
    local number = tonumber(raw)
    row.shown = row.file_key:gsub("=", "")
    if refused then
        local reason = number and why_refused(row, number, {}, "0 is not taken from the file: leave the line out")
        local start = raw:match("^%s*[+-]?[%d.]+") or ""
        reason = reason or ("'%s' is %s"):format(printable(raw), tonumber(start) and
            "out of range, to " .. number_text(row.max) .. "; the number has to be above 0, with a point for fractions" or "no number")
        return self:problem(offset, row.shown, "%s", reason)
    end
    self:take(offset, row, value)
    if not number or math.abs(number - value) > 1e-6 * math.max(1, math.abs(value)) then
        self:problem(offset, row.shown, "of '%s' only %s is read", printable(raw), number_text(value))
    end
    self:remark(offset, row, value)
end

-- A row that the line begins with, by the module's word; each different line is tried once.
local function try_line(rows, text, known)
    if known[text] then
        return known[text]
    end
    local answer = {}
    if text ~= "" then
        write_config(text)
        local _, _, errors = iterate("Deactivated", "")
        local key, value = next((read_values()))
        local refused = (errors[1] or ""):match("^value %S+ for  (%S+) is out of range")
        answer = key and { row = rows[key:lower()], value = value } or { row = rows[refused or ""], refused = refused }
    end
    known[text] = answer
    return answer
end

function Answer:judge_config(rows, tried, known)
    self.text = self.text:gsub("\r\n", "\n") -- as the C library hands it out
    local lines, stop = lines_of(self.text)
    local last, values = {}, {}
    for _, line in ipairs(lines) do
        local answer = try_line(rows, line.text, known)
        if not answer.row then
            self:judge_strange_line(rows, line)
        else
            self:judge_set_line(answer.row, line, answer.value, answer.refused)
            if not answer.refused then
                if last[answer.row] then
                    self:problem(last[answer.row], answer.row.shown, "this is set again below, and the later line counts")
                end
                last[answer.row], values[answer.row.key] = line.offset, answer.value
            end
        end
    end
    if stop < #self.text then
        self:problem(stop + 1, nil, "a Ctrl-Z ends the file here")
    end
    self:compare_values(values, tried.values)
    if values[MIN_WAIT] and values[MAX_WAIT] and values[MIN_WAIT] > values[MAX_WAIT] then
        self:problem(last[rows[MAX_WAIT:lower()]], rows[MAX_WAIT:lower()].shown,
            "the longest wait is below the first one, which the file, unlike a policy, may have")
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

-- What the module does with it ------------------------------------------------------------------------------------

local function list_limits(line)
    local parts = {}
    for _, name in ipairs { "rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t" } do
        local limit = line.limits[name] or 0
        if limit ~= 0 then
            parts[#parts + 1] = ("%s %s %s"):format(name, name == "frepct" and "below" or "above", number_text(limit))
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
            "apart."):format(number_text(limits.delta_t))
    end
    local minutes = {}
    for i, wait in ipairs(waits) do
        minutes[i] = tostring(wait)
    end
    return ("Recovery checks come after %s minutes, as long as they fail; one succeeds only if the last two calls were " ..
        "at most %s s apart."):format(table.concat(minutes, ", "), number_text(limits.delta_t))
end

function Answer:describe_off(tried)
    if tried.values.SYS_CONF_DISABLE_FAIL_OPEN == 1 then
        return "System health is switched off (action 2)."
    elseif tried.errors[1] and tried.errors[1]:find("monitoring port not configured", 1, true) then
        return "System health is off (action 2): the limits of refused and established connections and of scanned " ..
            "bytes need the port, and it is missing."
    end
    return "System health is off (action 2): no value is taken."
end

-- The module's behaviour depends on the values that it has taken and on the action alone.
function Answer:describe(policy, tried, known)
    local parts = { tostring(tried.action), tried.unload }
    for key, value in pairs(tried.values) do
        parts[#parts + 1] = ("%s=%.17g"):format(key, value)
    end
    table.sort(parts)
    local name = table.concat(parts, " ")
    known[name] = known[name] or self:try_effect(policy, tried)
    self.effect, self.waits = known[name].effect, known[name].waits
end

function Answer:try_effect(policy, tried)
    if tried.action == DISABLED then
        return { effect = { self:describe_off(tried) }, waits = {} }
    end
    local waits, limits = try_waits(policy)
    local effect = {}
    if tried.line then
        effect[1] = "The filter fails open with " .. list_limits(tried.line) .. "."
    end
    effect[#effect + 1] = #waits > 0 and describe_recovery(waits, limits) or nil
    if tried.unload == "true" then
        effect[#effect + 1] = "Fail-open unloads the driver."
    end
    return { effect = effect, waits = waits }
end

local function by_place(a, b)
    if a.line ~= b.line then
        return a.line < b.line
    end
    return a.column < b.column
end

local function judge(kind, text, rows, known)
    local answer = new_answer(text)
    local is_policy = kind == "policy"
    local policy = is_policy and text or ""
    write_config(is_policy and "" or text)
    local tried = try(policy)
    if is_policy then
        answer:judge_policy(rows, tried)
    else
        answer:judge_config(rows, tried, known.lines)
        write_config(text)
    end
    if known.effects then
        answer:describe(policy, tried, known.effects)
    end
    table.sort(answer.problems, by_place)
    return {
        ok = #answer.problems == 0, taken = answer.taken, problems = answer.problems,
        effect = known.effects and answer.effect, waits = answer.waits, values = tried.values, off = tried.action == DISABLED,
        unexplained = answer.is_unexplained or false,
    }
end

-- The request -------------------------------------------------------------------------------------------------------

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

local kind, texts, wants_effects = read_request()
host.use_program_data(AGENT)
host.machine.processor_queue = 0
host.set_verbose_log(true)
if not wants_effects then
    host.fault { call = "PdhOpenQueryW", fail = 5 } -- an iteration ends there, and takes no 100 ms
end
require "fc"
local rows = learn_rows()
local known = { lines = {}, effects = wants_effects and {} or nil }
local answers = {}
for i, text in ipairs(texts) do
    answers[i] = judge(kind, text, rows, known)
end
host.write_json(FOLDER .. "/answer.json", answers)
