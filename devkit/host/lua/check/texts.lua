-- Places in a text, and parts of it in messages.
local texts = {}

function texts.printable(text)
    text = text:gsub("[%z\1-\31\127]", function(c) return ("\\x%02X"):format(c:byte()) end)
    return #text > 60 and text:sub(1, 57) .. "..." or text
end

function texts.number_text(number)
    return ("%.10g"):format(number)
end

function texts.place_of(text, offset)
    local before = text:sub(1, offset - 1)
    local _, lines = before:gsub("\n", "")
    local _, continued = before:match("[^\n]*$"):gsub("[\128-\191]", "")
    return lines + 1, #before:match("[^\n]*$") - continued + 1
end

return texts
