-- The findings of vxa check as JSON records.

local check_text = require "vxa.reports.check_text"
local json_records = require "vxa.output.json_records"

local check_json = {}

local function or_null(value)
    if value == nil then return json_records.null end
    return value
end

function check_json.show_subject(subject, monitors)
    json_records.print { record = "check", file = subject.file, format = or_null(subject.format),
                         monitoring = monitors,
                         settings = json_records.object(subject.settings) }
end

function check_json.show(file, finding)
    json_records.print {
        record = "finding", file = file, line = or_null(finding.line),
        column = or_null(finding.column), key = or_null(finding.key), severity = finding.severity,
        message = check_text.message(finding), suggestion = or_null(finding.suggestion),
    }
end

function check_json.finish(errors, warnings)
    json_records.print { record = "end", errors = errors, warnings = warnings }
end

return check_json
