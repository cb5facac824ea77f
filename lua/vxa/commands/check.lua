-- vxa check: what the module ignores or misreads in a policy or a configuration file.

local check_json = require "vxa.reports.check_json"
local check_text = require "vxa.reports.check_text"
local effects = require "vxa.check.effects"
local inspection = require "vxa.check.inspection"
local machine = require "vxa.check.machine"
local option = require "vxa.options"
local session = require "vxa.session"

local FORMATS = { policy = true, conf = true }

local function to_format(text)
    if FORMATS[text] then return text end
    return nil, ("--format must be policy or conf, not '%s'"):format(text)
end

local function define(command)
    command:description("Check a health policy or a file with the syntax of /etc/vx_filter.conf: "
        .. "what the module ignores or misreads there, and what has no effect. Exit status: 0 "
        .. "nothing found; 1 warnings only; 2 errors.")
    command:argument("FILE", "Its format is recognized by its content."):target("file")
        :convert(option.file_name("FILE"))
    command:option("--format", "Read FILE as a policy or as a configuration file (conf).")
        :argname("FORMAT"):convert(to_format)
    command:option("--interval", "The seconds between cycles, as for vxa run (default 10).")
        :argname("SECONDS"):convert(option.seconds("--interval")):default(10)
    command:flag("--elsewhere", "The file is for other machines: do not compare it with what this "
        .. "one can show.")
    option.add_engine(command)
    option.add_json(command)
end

-- Shows the findings, and the number of those that are not listed.
local function show(report, subject)
    for _, finding in ipairs(subject.findings) do report.show(subject.file, finding) end
    local rest = subject.findings:count() - #subject.findings
    if rest > 0 then
        report.show(subject.file, { severity = "error", hint = "", effect = "",
                                    message = ("and %d more"):format(rest) })
    end
end

local function run(options)
    local attached = session.attach_driver(options)
    local subject = inspection.of_file(attached.vxa, options.file, options.format)
    if subject.readable then
        effects.judge(subject, options.interval, not options.elsewhere
            and machine.measure(attached.vxa, attached.engine) or nil)
    end
    local report = options.json and check_json or check_text
    report.show_subject(subject, effects.monitors(subject.settings))
    show(report, subject)
    report.finish(subject.findings.error, subject.findings.warning)
    return subject.findings.error > 0 and 2 or subject.findings.warning > 0 and 1 or 0
end

return { define = define, run = run }
