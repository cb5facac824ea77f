-- The findings of vxa check as JSON records.

local facts = require "vxa.machine.facts"
local check_text = require "vxa.reports.check_text"
local json_records = require "vxa.output.json_records"
local printable = require "vxa.output.printable"
local resources = require "vxa.machine.resources"

local check_json = {}

local or_null = json_records.or_null

local function bytes(kb)
    return kb and kb * 1024 or json_records.null
end

function check_json.show_machine(vxa, measured)
    json_records.print {
        record = "machine", engine = measured.engine,
        capabilities = json_records.array(measured.capabilities), load = or_null(measured.load),
        cpus = or_null(measured.cpus), memory_bytes = bytes(measured.total_kb),
        memory_free_bytes = bytes(measured.free_kb), user = facts.user(vxa),
        machine = json_records.machine(resources.read(vxa)),
    }
end

function check_json.show_subject(subject, monitors)
    json_records.print { record = "check", file = printable(subject.file),
                         format = or_null(subject.format), monitoring = monitors,
                         settings = json_records.object(subject.settings) }
end

function check_json.show(file, finding)
    local message = check_text.message(finding)
    json_records.print {
        record = "finding", file = printable(file), line = or_null(finding.line),
        column = or_null(finding.column), key = or_null(finding.key and printable(finding.key)),
        severity = finding.severity, message = printable(message),
        suggestion = or_null(finding.suggestion),
    }
end

function check_json.finish(errors, warnings)
    json_records.print { record = "end", errors = errors, warnings = warnings }
end

return check_json
