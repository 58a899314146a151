-- Why the module takes of a configuration file what it takes.
local Answer = require "answer"
local module = require "module"
local names = require "names"
local texts = require "texts"

local READ_BYTES = 1023 -- of a line of the file, at a time
local MIN_WAIT, MAX_WAIT = "SYS_CONF_MIN_ACT_DURATION", "SYS_CONF_MAX_ACT_DURATION"

local config = {}

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

local function judge_strange_key(answer, rows, line, name, blanks)
    local row, in_policy = rows[name:upper() .. "="], rows[name:lower()]
    if in_policy then
        answer:problem(line.offset, name, "this is a key of policies; in the file it is %s", in_policy.file_key:gsub("=", ""))
    elseif not row then
        answer:problem(line.offset, name, "there is no such key%s", names.suggestion(name, names.of_rows(rows, "file_key")))
    elseif line.text:find("^\239\187\191") then
        answer:problem(line.offset, name, "a byte order mark stands before the key, so that it is not found: save the file without one")
    elseif line.text:find("^%s") then
        answer:problem(line.offset, name, "the key has to stand at the very beginning of its line")
    elseif blanks ~= "" then
        answer:problem(line.offset, name, "there must be no blank before the =")
    else
        answer:problem(line.offset, name, "keys of the file are in capitals: %s", name:upper())
    end
end

local function judge_strange_line(answer, rows, line)
    local bare = line.text:gsub("^[%s\239\187\191]+", "")
    local name, blanks = bare:match("^([%w_.-]+)(%s*)=")
    if line.is_rest then
        if bare ~= "" then
            answer:problem(line.offset, nil, "a line of more than %d characters goes on here as a line of its own", READ_BYTES)
        end
    elseif bare == "" or bare:find("^[#;/%[]") then
        return -- ignored, as is meant
    elseif not name then
        answer:problem(line.offset, nil, "this is no setting: one is KEY=NUMBER, at the beginning of the line")
    else
        judge_strange_key(answer, rows, line, name, blanks)
    end
end

local function judge_set_line(answer, row, line, value, refused)
    local raw = line.text:sub(#row.file_key + 1)
    local offset = line.offset + #row.file_key
    local number = tonumber(raw)
    row.shown = row.file_key:gsub("=", "")
    if refused then
        local reason = number and Answer.why_refused(row, number, {}, "0 is not taken from the file: leave the line out")
        local start = raw:match("^%s*[+-]?[%d.]+") or ""
        reason = reason or ("'%s' is %s"):format(texts.printable(raw), tonumber(start) and
            "out of range, to " .. texts.number_text(row.max) .. "; the number has to be above 0, with a point for fractions" or "no number")
        return answer:problem(offset, row.shown, "%s", reason)
    end
    answer:take(offset, row, value)
    if not number or math.abs(number - value) > 1e-6 * math.max(1, math.abs(value)) then
        answer:problem(offset, row.shown, "of '%s' only %s is read", texts.printable(raw), texts.number_text(value))
    end
    answer:remark(offset, row, value)
end

-- A row that the line begins with, by the module's word; each different line is tried once.
local function try_line(rows, text, known)
    if known[text] then
        return known[text]
    end
    local found = {}
    if text ~= "" then
        module.write_config(text)
        local _, _, errors = module.iterate("Deactivated", "")
        local key, value = next((module.read_values()))
        local refused = (errors[1] or ""):match("^value %S+ for  (%S+) is out of range")
        found = key and { row = rows[key:lower()], value = value } or { row = rows[refused or ""], refused = refused }
    end
    known[text] = found
    return found
end

function config.judge(answer, rows, tried, known)
    answer:set_text((answer.text:gsub("\r\n", "\n"))) -- as the C library hands it out
    local lines, stop = lines_of(answer.text)
    local last, values = {}, {}
    for _, line in ipairs(lines) do
        local found = try_line(rows, line.text, known)
        if not found.row then
            judge_strange_line(answer, rows, line)
        else
            judge_set_line(answer, found.row, line, found.value, found.refused)
            if not found.refused then
                if last[found.row] then
                    answer:problem(last[found.row], found.row.shown, "this is set again below, and the later line counts")
                end
                last[found.row], values[found.row.key] = line.offset, found.value
            end
        end
    end
    if stop < #answer.text then
        answer:problem(stop + 1, nil, "a Ctrl-Z ends the file here")
    end
    answer:compare_values(values, tried.values)
    if values[MIN_WAIT] and values[MAX_WAIT] and values[MIN_WAIT] > values[MAX_WAIT] then
        answer:problem(last[rows[MAX_WAIT:lower()]], rows[MAX_WAIT:lower()].shown,
            "the longest wait is below the first one, which the file, unlike a policy, may have")
    end
end

return config
