-- Names that are nearly right.
local names = {}

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

local function nearest(name, known)
    local best, least = nil, math.max(3, math.floor(#name / 3)) + 1
    for _, other in ipairs(known) do
        local far = #name < 80 and distance(name:upper(), other) or least
        if far < least then
            best, least = other, far
        end
    end
    return best
end

function names.suggestion(name, known)
    local best = nearest(name, known)
    return best and "; the nearest is " .. best or ""
end

function names.of_rows(rows, field)
    local found = {}
    for i, row in ipairs(rows) do
        found[i] = row[field]:gsub("=", "")
    end
    return found
end

return names
