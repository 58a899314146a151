-- Loads the module and lists its functions:  ./dev host examples/hello.lua
require "fc"

local names = {}
for name in pairs(SLB.filter) do
    names[#names + 1] = name
end
table.sort(names)
print("SLB.filter has " .. #names .. " functions:")
print("  " .. table.concat(names, "\n  "))
