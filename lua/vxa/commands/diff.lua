-- vxa diff: shows what changed between two diagnostic packages.

local archive = require "vxa.packages.archive"
local compare = require "vxa.diff.comparison"
local console = require "vxa.output.console"
local exit = require "vxa.exit"
local option = require "vxa.options"
local progress = require "vxa.output.progress"
local session = require "vxa.session"

local SHORT_LIMIT, LONG_LIMIT = 20, 1000
local MOST_LISTED = 1000000

local function define(command)
    command:description("Show what changed between two diagnostic packages.")
    command:argument("A.zip", "The older package."):target("older")
        :convert(option.file_name("A.zip"))
    command:argument("B.zip", "The newer package."):target("newer")
        :convert(option.file_name("B.zip"))
    command:option("--limit", ("List at most N changes of each kind in an entry. Default: %d; %d "
        .. "counters, variables and members of the manifest; all with --json.")
        :format(SHORT_LIMIT, LONG_LIMIT)):argname("N")
        :convert(option.whole("--limit", 0, MOST_LISTED))
    option.add_json(command)
end

local function limits(options)
    if options.limit then return { short = options.limit, long = options.limit } end
    if options.json then return { short = math.huge, long = math.huge } end
    return { short = SHORT_LIMIT, long = LONG_LIMIT }
end

-- Returns what keeps the comparison interruptible, and the line that shows its progress.
local function watch(vxa)
    local line, done, total = progress.new(vxa, "comparing entries"), 0, 0
    return function(now_done, now_total)
        done, total = now_done or done, now_total or total
        if vxa.interrupted() then line:finish() end
        exit.if_interrupted(vxa)
        line:show(done, total)
    end, line
end

local function run(options)
    local vxa = session.load_host()
    local packages = { older = archive.open(vxa, options.older),
                       newer = archive.open(vxa, options.newer) }
    local check, line = watch(vxa)
    local result = compare(vxa, packages, limits(options), check)
    line:finish()
    require(options.json and "vxa.reports.diff_json" or "vxa.reports.diff_text")(packages, result)
    if not result.is_unreadable then return 0 end
    console.complain("an entry could not be read, so the comparison is incomplete")
    return 1
end

return { define = define, run = run }
