-- Where things are in a policy: a parser of JSON that keeps the places, and is as strict as the module's.
local MAX_DEPTH, MAX_NUMBER = 1000, 65536 -- of JSON that the module parses

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

return { scan = scan, member_of = member_of }
