-- Places in a text, and parts of it in messages.
local texts = {}

function texts.printable(text)
    text = text:gsub("[%z\1-\31\127]", function(c) return ("\\x%02X"):format(c:byte()) end)
    return #text > 60 and text:sub(1, 57) .. "..." or text
end

function texts.number_text(number)
    return ("%.10g"):format(number)
end

local PART_BYTES = 256

-- The place behind a part of a text that begins at a line and a column.
local function place_behind(part, line, column)
    local _, ends = part:gsub("\n", "")
    if ends > 0 then
        line, column, part = line + ends, 1, part:match("\n([^\n]*)$")
    end
    local _, continued = part:gsub("[\128-\191]", "")
    return line, column + #part - continued
end

-- A function that tells line and column of an offset in the text, in any order of the offsets: each call counts within
-- one part, however long the text and its lines are.
function texts.places_of(text)
    local lines, columns = { 1 }, { 1 } -- where the parts begin
    for i = 1, math.floor(#text / PART_BYTES) do
        local part = text:sub((i - 1) * PART_BYTES + 1, i * PART_BYTES)
        lines[i + 1], columns[i + 1] = place_behind(part, lines[i], columns[i])
    end
    return function(offset)
        local i = math.floor((offset - 1) / PART_BYTES) + 1
        return place_behind(text:sub((i - 1) * PART_BYTES + 1, offset - 1), lines[i], columns[i])
    end
end

return texts
