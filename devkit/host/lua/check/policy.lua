-- Why the module takes of a policy what it takes.
local Answer = require "answer"
local names = require "names"
local scanner = require "scanner"
local texts = require "texts"

local policy = {}

local KIND_TEXTS = { text = "a text in quotes", object = "an object", array = "an array", null = "null",
    ["true"] = "true", ["false"] = "false" }

local function judge_number(answer, row, item, value, values, zero_is_refused)
    if value then
        answer:take(item.offset, row, value)
        return answer:remark(item.offset, row, value)
    end
    local reason = Answer.why_refused(row, item.number, values, zero_is_refused)
    answer:problem(item.offset, row.shown, "%s", reason or "the module does not take it")
    answer.is_unexplained = answer.is_unexplained or not reason
end

local function judge_threshold(answer, row, member, values)
    local item = member.value
    if item.kind == "number" then
        return answer:problem(item.offset, row.shown, 'a bare number is left out: a threshold is written { "value": %s }',
            texts.printable(item.raw))
    elseif item.kind ~= "object" then
        return answer:problem(item.offset, row.shown, '%s is left out: a threshold is written { "value": NUMBER }',
            KIND_TEXTS[item.kind])
    end
    local value = scanner.member_of(item, "value")
    if not value then
        return answer:problem(item.offset, row.shown, 'the object has no "value", and is left out')
    elseif value.kind ~= "number" then
        return answer:problem(value.offset, row.shown, "%s is left out: a number without quotes is expected",
            KIND_TEXTS[value.kind])
    end
    judge_number(answer, row, value, values[row.key], values, "a threshold has to be above 0")
end

local function judge_setting(answer, row, member, values)
    local item, value = member.value, values[row.key]
    if item.kind == "number" then
        return judge_number(answer, row, item, value, values)
    end
    answer:problem(item.offset, row.shown, "%s counts as 0: a number without quotes is expected", KIND_TEXTS[item.kind])
    if value then
        answer:take(item.offset, row, value)
        answer:remark(item.offset, row, value)
    end
end

local function judge_members(answer, rows, members, values)
    local seen = {}
    for _, member in ipairs(members) do
        local row = rows[member.key:lower()]
        local in_file = rows[member.key:upper() .. "="]
        if in_file then
            answer:problem(member.key_offset, member.key, "this is a key of vt_filter.conf; in a policy it is %s", in_file.key)
        elseif not row then
            answer:problem(member.key_offset, member.key, "there is no such key%s",
                names.suggestion(member.key, names.of_rows(rows, "key")))
        elseif seen[row] then
            answer:problem(member.key_offset, row.key, "this is here a second time; only the first one counts")
        else
            seen[row] = true
            row.shown = row.key
            local judge = row.is_threshold and judge_threshold or judge_setting
            judge(answer, row, member, values)
        end
    end
end

function policy.judge(answer, rows, tried)
    local text = answer.text:match("^[^%z]*")
    if #text < #answer.text then
        answer:problem(#text + 1, nil, "a zero byte ends the text here")
    end
    if text == "" then
        answer:problem(1, nil, answer.text == "" and "an empty policy stands for none: the module reads vt_filter.conf instead" or
            "the policy is empty")
        answer.is_unexplained = answer.is_unexplained or (answer.text ~= "" and tried.is_read)
        return
    end
    local root, fault, behind = scanner.scan(text)
    answer.is_unexplained = (root ~= nil) ~= tried.is_read
    if not root then
        return answer:problem(fault.offset, nil, "%s; text that is no JSON sets nothing", fault.text)
    elseif root.kind ~= "object" then
        answer:problem(root.offset, nil, "a policy is an object in { }; nothing of this is taken")
    else
        judge_members(answer, rows, root.members, tried.values)
    end
    if text:find("[^\1-\32]", behind) then
        answer:problem(text:find("[^\1-\32]", behind), nil, "the text behind the object is ignored")
    end
end

return policy
