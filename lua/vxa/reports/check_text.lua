-- The findings of vxa check: a line for each, as compilers print them.

local console = require "vxa.output.console"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"

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

function check_text.finish(errors, warnings)
    console.line("%s, %s", format.count(errors, "error"), format.count(warnings, "warning"))
end

return check_text
