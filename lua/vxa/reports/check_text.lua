-- The findings of vxa check: a line for each, as compilers print them.

local console = require "vxa.output.console"
local facts = require "vxa.machine.facts"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"
local resources = require "vxa.machine.resources"

local check_text = {}

-- Returns what a finding says, without its key and suggestion.
function check_text.message(finding)
    local hint = finding.hint ~= "" and (" (%s)"):format(finding.hint) or ""
    return finding.message .. finding.effect .. hint
end

function check_text.show(file, finding)
    local place = finding.line and (":%d:%d"):format(finding.line, finding.column) or ""
    local key = finding.key and finding.key .. ": " or ""
    local meant = finding.suggestion and (" (did you mean %s?)"):format(finding.suggestion) or ""
    console.line("%s", printable(("%s%s: %s: %s%s%s"):format(file, place, finding.severity, key,
        check_text.message(finding), meant)))
end

local FORMATS = { policy = "policy", conf = "configuration file" }

-- A line about a policy: what it is and whether the module monitors with it.
function check_text.show_subject(subject, monitors)
    local count = 0
    for _ in pairs(subject.settings) do count = count + 1 end
    if not subject.readable then return end
    console.line("%s: %s, %s; %s", printable(subject.file), FORMATS[subject.format],
        format.count(count, "valid setting"),
        monitors and "the module monitors" or "the module does not monitor")
end

-- ---- this machine -------------------------------------------------------------------------

local function show_line(title, text, ...)
    console.line("%s", format.titled(title, printable(text:format(...))))
end

local function show_value(title, value, path)
    show_line(title, "%s%s", value and format.number(value) or "unknown",
        path and ", from " .. path or "")
end

local function available_tables(measured)
    local names = {}
    for _, row in ipairs(measured.capabilities) do
        if row.available then names[#names + 1] = row.name end
    end
    return #names > 0 and table.concat(names, ", ") or "no tables"
end

function check_text.show_machine(vxa, measured)
    show_line("user", "%s", format.user(facts.user(vxa)))
    show_line("engine", "%s: %s", measured.engine, available_tables(measured))
    for _, row in ipairs(measured.capabilities) do
        if row.name == "conntrack" then show_line("conntrack", "%s", row.detail) end
    end
    show_value("load", measured.load, measured.uptime_path)
    show_value("processors", measured.cpus, measured.nproc_path)
    local total, free = measured.total_kb, measured.free_kb
    show_line("memory", "%s", total and free and ("%s, %s %% free"):format(
        format.size(total * 1024), format.number(100 * free / total)) or "unknown")
    local machine = resources.read(vxa)
    if machine then show_line("machine", "%s (not judged)", format.machine(machine)) end
    show_line("clock", "%s", os.date("!%Y-%m-%d %H:%M:%S UTC"))
end

-- ---- the end --------------------------------------------------------------------------------

function check_text.finish(errors, warnings)
    console.line("%s, %s", format.count(errors, "error"), format.count(warnings, "warning"))
end

return check_text
