-- vxa check: what the module ignores or misreads in a policy or a configuration file, and what on
-- this machine changes what vxa or an agent does.

local check_json = require "vxa.reports.check_json"
local check_text = require "vxa.reports.check_text"
local effects = require "vxa.check.effects"
local exit = require "vxa.exit"
local inspection = require "vxa.check.inspection"
local machine = require "vxa.check.machine"
local option = require "vxa.options"
local session = require "vxa.session"
local surroundings = require "vxa.check.surroundings"

local function to_format(text)
    for _, format in ipairs(option.POLICY_FORMATS) do
        if text == format then return text end
    end
    return nil, ("--format must be policy or conf, not '%s'"):format(text)
end

local function define(command)
    command:description("Check FILE, a health policy or a file with the syntax of "
        .. "/etc/vx_filter.conf: what the module ignores or misreads there, and what has no "
        .. "effect. Without FILE, check this machine: the policy that vxa run would use, and what "
        .. "would make vxa or an agent fail or do something else. Exit status: 0 nothing found; 1 "
        .. "warnings only; 2 errors.")
    command:argument("FILE", "Its format is recognized by its content."):target("file"):args("?")
        :convert(option.file_name("FILE"))
    command:option("--format", "Read FILE as a policy or as a configuration file (conf).")
        :argname("FORMAT"):convert(to_format)
    command:flag("--elsewhere", "FILE is for other machines: do not compare it with what this one "
        .. "can show.")
    option.add_policy_file(command)
    option.add_port(command)
    command:option("--interval", "The seconds between cycles, as for vxa run (default 10).")
        :argname("SECONDS"):convert(option.seconds("--interval")):default(10)
    option.add_state(command, "The directory that vxa run gets with --state.")
    option.add_engine(command)
    option.add_json(command)
end

-- ---- results ------------------------------------------------------------------------------

-- Shows the findings, and the number of those that are not listed.
local function show_findings(report, file, findings)
    local errors = findings.error
    for _, finding in ipairs(findings) do
        if finding.severity == "error" then errors = errors - 1 end
        report.show(finding.file or file, finding)
    end
    local rest = findings:count() - #findings
    if rest > 0 then
        report.show(file, { severity = errors > 0 and "error" or "warning", hint = "", effect = "",
                            message = ("and %d more"):format(rest) })
    end
end

-- Shows the end of the report; returns the exit status.
local function finish(report, lists)
    local errors, warnings = 0, 0
    for _, findings in ipairs(lists) do
        errors, warnings = errors + findings.error, warnings + findings.warning
    end
    report.finish(errors, warnings)
    return errors > 0 and 2 or warnings > 0 and 1 or 0
end

-- ---- a file -------------------------------------------------------------------------------

local function check_file(options, report)
    local attached = session.attach_driver(options)
    local vxa = attached.vxa
    local subject = inspection.of_file(vxa, options.file, options.format)
    if subject.readable then
        effects.judge(subject, options.interval,
            not options.elsewhere and machine.measure(vxa, attached.engine) or nil)
    end
    exit.if_interrupted(vxa)
    report.show_subject(subject, effects.monitors(subject.settings))
    show_findings(report, subject.file, subject.findings)
    return finish(report, { subject.findings })
end

-- ---- this machine -------------------------------------------------------------------------

-- The engine of VXI_ENGINE, or the default if that is unknown: then it is among the findings.
local function select_engine(vxa, option_value)
    if option_value then
        local engine, message = vxa.engine(option_value)
        return engine or exit.fail(2, "%s", message)
    end
    local name = os.getenv("VXI_ENGINE")
    local engine = name and name ~= "" and vxa.engine(name)
    return engine or vxa.engine("linux")
end

local function check_machine(options, report)
    local before = surroundings.remember()
    local vxa = session.load_host()
    local measured = machine.measure(vxa, select_engine(vxa, options.engine))
    local subject = inspection.in_use(vxa, options, measured.cpus or 1)
    if subject.readable then effects.judge(subject, options.interval, measured) end
    local findings = surroundings.inspect(vxa, before, measured, options.state,
        session.load_filter)
    exit.if_interrupted(vxa)
    report.show_machine(vxa, measured)
    report.show_subject(subject, effects.monitors(subject.settings))
    show_findings(report, subject.file, subject.findings)
    show_findings(report, "environment", findings)
    return finish(report, { subject.findings, findings })
end

local function run(options)
    if options.file and (options.policy or options.port or options.state) then
        exit.fail(2, "FILE is checked alone: leave out --policy, --port and --state")
    end
    if not options.file and (options.format or options.elsewhere) then
        exit.fail(2, "--format and --elsewhere need FILE")
    end
    local report = options.json and check_json or check_text
    return (options.file and check_file or check_machine)(options, report)
end

return { define = define, run = run }
