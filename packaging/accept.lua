-- Evaluates the results of test programs in the current folder: NAME.xml and NAME.status for each.
--   accept.lua tell NAME     prints a line about one program
--   accept.lua summary       prints the totals of those in programs.txt, and writes summary.html; also passed.txt if
--                            every program has complete results without a failure

local function content(path)
    local file = io.open(path, "rb")
    if not file then
        return nil
    end
    local text = file:read("*a")
    file:close()
    return text
end

local function trimmed(text)
    return (text or ""):match("^%s*(.-)%s*$")
end

-- The attributes of an XML element, still escaped, as HTML needs them.
local function attributes(element)
    local found = {}
    for name, value in element:gmatch('([%w_]+)="([^"]*)"') do
        found[name] = value
    end
    return found
end

-- Fills the result from the XML; returns what is wrong with it.
local function read_xml(result, xml)
    if not xml or xml == "" then
        return "left no results"
    end
    local head = xml:match("<testsuites (.-)>")
    if not head or not xml:match("</testsuites>%s*$") then
        return "left incomplete results"
    end
    local sums, cases = attributes(head), 0
    for element in xml:gmatch("<testcase (.-)>") do
        cases = cases + 1
        if attributes(element).result == "skipped" then
            result.skipped = result.skipped + 1
        end
    end
    for element, inside in xml:gmatch("<testcase ([^>]-[^/])>(.-)</testcase>") do
        local message = inside:match('<failure message="([^"]*)"')
        if message then
            local case = attributes(element)
            table.insert(result.failures, { name = case.classname .. "." .. case.name, message = message })
        end
    end
    result.tests = cases
    result.failed = tonumber(sums.failures) + tonumber(sums.errors or 0)
    result.seconds = tonumber(sums.time) or 0
    result.left_out = sums.left_out or ""
    if cases ~= tonumber(sums.tests) or result.failed ~= #result.failures then
        return "left incomplete results"
    elseif cases == 0 then
        return "ran no tests"
    elseif result.failed > 0 then
        return ("failed in %d of %d tests"):format(result.failed, cases)
    end
end

-- What a program has left; `fault` says why it did not pass.
local function judge(name)
    local result = { name = name, tests = 0, failed = 0, skipped = 0, seconds = 0, left_out = "", failures = {} }
    local status = trimmed(content(name .. ".status"))
    result.fault = read_xml(result, content(name .. ".xml"))
    if status == "" then
        result.fault = "was not run"
    elseif status == "late" then
        result.fault = "was killed after " .. (os.getenv("FC_TEST_SECONDS") or "?") .. " s"
    elseif status == "begun" then
        result.fault = "was left by fc-launch.exe, which has ended"
    elseif status == "killed" then
        result.fault = "was ended from outside"
    elseif status ~= "0" and result.failed == 0 then
        local number = tonumber(status) or 0
        local ending = number >= 0x80000000 and ("crashed: 0x%08X"):format(number) or "ended with status " .. status
        result.fault = result.fault and result.fault .. " and " .. ending or ending .. " after its tests"
    end
    result.passed = result.tests - result.failed - result.skipped
    if result.fault and result.failed == 0 then
        result.failed = 1 -- a program without results counts as one test
    end
    return result
end

local function counts(sums)
    return ("%d passed, %d failed, %d skipped"):format(sums.passed, sums.failed, sums.skipped)
end

local function line_about(result)
    local fault = result.fault and ": FAILED, " .. result.fault or ""
    return ("%s in %.0f s%s"):format(counts(result), result.seconds, fault)
end

local PAGE = [[
<!DOCTYPE html>
<html lang="en">
<meta charset="utf-8">
<title>Acceptance of fc</title>
<style>
body { font-family: sans-serif; margin: 2em auto; max-width: 70em; }
td, th { padding: 0.2em 1em 0.2em 0; text-align: right; }
td:first-child, th:first-child, td:last-child, th:last-child { text-align: left; }
.failed { color: #b00020; }
pre { background: #f4f4f4; padding: 0.7em; white-space: pre-wrap; }
</style>
<h1 class="@CLASS@">@HEADING@</h1>
<p>@VERSION@<br>@SYSTEM@<br>@TIME@</p>
<table>
<tr><th>Program</th><th>Passed</th><th>Failed</th><th>Skipped</th><th>Seconds</th><th></th></tr>
@ROWS@
</table>
@FAILURES@
<h2>What was left out</h2>
<p>Tests that would change the firewall, services, drivers, INF files or registry of this machine, since the variable
FC_LEAVE_MACHINE_ALONE was set: @LEFT_OUT@.</p>
<p>The simulated registry of the other tests lies below HKEY_CURRENT_USER\Software\fc-devkit, and each removes its
own; files are made in the folder for temporary files and in the folder of these results.</p>
</html>
]]

local ROW = '<tr class="%s"><td>%s</td><td>%d</td><td>%d</td><td>%d</td><td>%.0f</td><td>%s</td></tr>'
local FAILURE = "<h3>%s: %s</h3>\n<pre>%s</pre>"

local function escaped(text)
    return (text:gsub("&", "&amp;"):gsub("<", "&lt;"))
end

local function write_page(results, heading, all_passed)
    local rows, failures, left_out = {}, {}, {}
    for _, result in ipairs(results) do
        table.insert(rows, ROW:format(result.fault and "failed" or "passed", result.name, result.passed, result.failed,
            result.skipped, result.seconds, result.fault or ""))
        for _, failure in ipairs(result.failures) do
            table.insert(failures, FAILURE:format(result.name, failure.name, failure.message))
        end
        if result.left_out ~= "" then
            table.insert(left_out, result.left_out)
        end
    end
    local values = {
        CLASS = all_passed and "passed" or "failed",
        HEADING = heading,
        VERSION = escaped(trimmed(content("version.txt"))),
        SYSTEM = escaped(trimmed(content("system.txt"))),
        TIME = os.date("%Y-%m-%d %H:%M"),
        ROWS = table.concat(rows, "\n"),
        FAILURES = #failures > 0 and "<h2>Failures</h2>\n" .. table.concat(failures, "\n") or "",
        LEFT_OUT = #left_out > 0 and table.concat(left_out, ", ") or "none among these programs",
    }
    local file = assert(io.open("summary.html", "wb"))
    assert(file:write((PAGE:gsub("@([A-Z_]+)@", values))))
    assert(file:close())
end

local function summary()
    local results, sums, all_passed = {}, { passed = 0, failed = 0, skipped = 0 }, true
    for name in assert(io.open("programs.txt")):lines() do
        local result = judge(trimmed(name))
        table.insert(results, result)
        for key in pairs(sums) do
            sums[key] = sums[key] + result[key]
        end
        all_passed = all_passed and not result.fault
    end
    all_passed = all_passed and #results > 0
    print()
    for _, result in ipairs(results) do
        if result.fault then
            print(("FAILED: %s %s; see results\\%s.log"):format(result.name, result.fault, result.name))
        end
    end
    print(counts(sums))
    print("The page about it is results\\summary.html")
    write_page(results, counts(sums), all_passed)
    if all_passed then
        assert(io.open("passed.txt", "w")):close()
    end
    return all_passed and 0 or 1
end

if arg[1] == "tell" then
    print("    " .. line_about(judge(arg[2])))
    return 0
end
return summary()
