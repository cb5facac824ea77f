-- vxa plot: draws a record with gnuplot.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local new_file = require "vxa.output.new_file"
local option = require "vxa.options"
local picture = require "vxa.plot.picture"
local policy_source = require "vxa.policy_source"
local printable = require "vxa.output.printable"
local records = require "vxa.records"
local session = require "vxa.session"

local function picture_name(text)
    if text:lower():match("[^/]%.svg$") or text:lower():match("[^/]%.png$") then return text end
    return nil, ("--output must be a file name that ends in .svg or .png, not '%s'"):format(text)
end

local function define(command)
    command:description("Draw a record: a panel for each metric, with its threshold.")
    option.add_record(command)
    command:option("-o --output", "The picture to write, FILE.svg or FILE.png."):argname("FILE")
        :target("picture"):convert(picture_name):count(1)
    command:flag("--force", "Replace an existing file.")
    command:option("--policy", "Draw the thresholds of this policy, and when it would have been in "
        .. "fail-open, instead of what is in the record."):argname("FILE.json")
        :convert(option.file_name("--policy"))
    option.add_time(command, "--since", "Leave out what is before this")
    option.add_time(command, "--until", "Leave out what is after this")
end

-- ---- reading ----------------------------------------------------------------------------

local function read_chart(vxa, options, policy)
    local json = policy and policy_source.to_json(policy.values)
    local chart, message = vxa.chart(options.record, json, options.since, options["until"])
    if not chart then exit.fail(2, "%s", message) end
    return records.read(vxa, chart)
end

-- ---- drawing ----------------------------------------------------------------------------

local ENOENT = 2  -- errno value

local function draw(vxa, script, file)
    -- Without the user's settings, which could change every picture.
    local drawn, message, code = vxa.run_program({ "gnuplot", "--default-settings" }, script,
        file)
    if code == ENOENT then message = "gnuplot is missing; install the package gnuplot-nox" end
    return drawn, message
end

local function show_done(chart, options)
    console.line("%s: %s in %s, fail-open %s", printable(options.picture),
        format.count(chart.rows, "row"), format.long_duration(chart.to - chart.from),
        format.count(chart.entries, "time"))
end

local function run(options)
    local vxa = session.load_host()
    new_file.check(vxa, options.picture, options.force, options.record)
    local policy = options.policy and policy_source.read(vxa, options.policy)
    local chart = read_chart(vxa, options, policy)
    if not next(chart.metrics) then exit.fail(2, "%s has no values to draw", options.record) end
    local script = picture.script(chart, options.picture:lower():sub(-3),
        policy and options.policy:match("[^/]*$"))
    new_file.write(vxa, options.picture, options.force, "picture",
        function(file) return draw(vxa, script, file) end)
    show_done(chart, options)
    return 0
end

return { define = define, run = run }
