-- The differences between two packages for people.

local console = require "vxa.output.console"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"
local section = require "vxa.diff.section"

-- ---- the packages -----------------------------------------------------------------------

local function origin(package)
    local parts = {}
    local function add(title, ...)
        local value = package:member("string", ...)
        if value then parts[#parts + 1] = title .. value end
    end
    add("host ", "host", "name")
    add("", "end")
    add("vxa ", "version")
    add("engine ", "engine")
    local has_ended = package:member("string", "state", "run_ended") ~= nil
    add(has_ended and "run ended while " or "", "state", "fail_open")
    return #parts > 0 and ": " .. table.concat(parts, ", ") or ""
end

local function show_packages(packages, result)
    console.line("older  %s", printable(packages.older.path .. origin(packages.older)))
    console.line("newer  %s", printable(packages.newer.path .. origin(packages.newer)))
    if result.elapsed and result.elapsed > 0 then
        console.line("       %s later", format.duration(result.elapsed))
    end
    for _, warning in ipairs(result.warnings) do console.line("warning: %s", printable(warning)) end
end

-- ---- one entry --------------------------------------------------------------------------

local LONGEST = 300

-- Cuts what is too long for people to read.
local function text(value)
    if #value > LONGEST then value = value:sub(1, LONGEST) .. "..." end
    return printable(value)
end

-- "12", "+12", "4/400" (packets and bytes), or a string.
local function cell(value, number_format)
    if value == nil then return "" end
    if type(value) == "table" then
        return cell(value.packets, number_format) .. "/" .. cell(value.bytes, number_format)
    end
    if type(value) ~= "number" then return text(value) end
    return number_format and number_format:format(value) or format.number(value)
end

local function change_row(what, change)
    return { "  " .. what, cell(change.name), cell(change.older, "%.0f"),
             cell(change.newer, "%.0f"), cell(change.change, "%+.0f"), cell(change.per_second) }
end

local HEADING = { "", "", "older", "newer", "change", "per second" }
local RIGHT = { [3] = true, [4] = true, [5] = true, [6] = true }

-- Removes the last columns as long as they are empty.
local function trim(rows)
    for column = #HEADING, 5, -1 do
        for i = 2, #rows do
            if rows[i][column] ~= "" then return end
        end
        for _, row in ipairs(rows) do row[column] = nil end
    end
end

-- Numbers are shown in columns, anything else as "OLDER -> NEWER".
local function is_numeric(change)
    if change.kind == "manifest" then return false end
    for _, value in ipairs { change.older or 0, change.newer or 0 } do
        if type(value) == "string" and not value:find("^%-?%d+$") then return false end
    end
    return change.older ~= nil or change.newer ~= nil
end

local function plain_line(what, change)
    local line = ("  %-10s%s"):format(what, cell(change.name))
    if change.older and change.newer then
        local older, newer = cell(change.older), cell(change.newer)
        return ("%s: %s -> %s"):format(line, older ~= "" and older or "nothing",
            newer ~= "" and newer or "nothing")
    end
    local value = cell(change.newer or change.older)
    return value ~= "" and line .. ": " .. value or line
end

local function show_changes(found)
    local rows, plain = { { table.unpack(HEADING) } }, {}
    for _, what in ipairs(section.CHANGES) do
        for _, change in ipairs(found.lists[what] or {}) do
            if is_numeric(change) then
                rows[#rows + 1] = change_row(what, change)
            else
                plain[#plain + 1] = plain_line(what, change)
            end
        end
        local more = (found.counts[what] or 0) - #(found.lists[what] or {})
        if more > 0 then plain[#plain + 1] = ("  and %.0f more %s"):format(more, what) end
    end
    trim(rows)
    if #rows > 1 then console.lines(format.columns(rows, RIGHT)) end
    console.lines(plain)
end

local function show_services(found)
    if not found.services or #found.services == 0 then return end
    local rows = { { "  service", "state", "older", "newer", "added", "removed" } }
    for i = 1, math.min(#found.services, found.limit) do
        local row = found.services[i]
        rows[#rows + 1] = { "  " .. row.service, row.state, ("%d"):format(row.older),
                            ("%d"):format(row.newer), ("%d"):format(row.added),
                            ("%d"):format(row.removed) }
    end
    console.lines(format.columns(rows, RIGHT))
    local more = #found.services - #rows + 1
    if more > 0 then console.line("  and %.0f more services and states", more) end
end

local function show_traffic(found)
    local traffic = found.traffic
    if not traffic or traffic.connections == 0 then return end
    console.line("  %s transferred %s, and %s back",
        format.count(traffic.connections, "connection"), format.size(traffic.bytes),
        format.size(traffic.bytes_back))
end

local function no_differences(is_damaged)
    return is_damaged and "no differences in what can be read" or "no differences"
end

local function summary(found)
    if found.lost then
        return ("lost from sight in the %s package: %s"):format(found.lost.side,
            printable(found.lost.reason))
    end
    if found.obstacle then return "differs; " .. printable(found.obstacle) end
    local parts = {}
    for _, what in ipairs(section.CHANGES) do
        if found.counts[what] then
            parts[#parts + 1] = ("%.0f %s"):format(found.counts[what], what)
        end
    end
    if found.traffic and found.traffic.connections > 0 then
        parts[#parts + 1] = ("%.0f with traffic"):format(found.traffic.connections)
    end
    return #parts > 0 and table.concat(parts, ", ") or no_differences(found.is_damaged)
end

local function show_section(found)
    console.line("")
    console.line("%s (%s): %s", found.entry, found.title, summary(found))
    for _, note in ipairs(found.notes) do console.line("  note: %s", text(note)) end
    show_services(found)
    show_traffic(found)
    show_changes(found)
end

-- Shows what lua/vxa/diff/comparison.lua returns.
return function(packages, result)
    show_packages(packages, result)
    for _, found in ipairs(result.sections) do show_section(found) end
    if #result.sections > 0 then console.line("") end
    if result.differences == 0 then
        console.line("%s", no_differences(result.is_damaged or result.is_unreadable))
    elseif #result.unchanged > 0 then
        console.line("unchanged: %s", printable(table.concat(result.unchanged, ", ")))
    end
end
