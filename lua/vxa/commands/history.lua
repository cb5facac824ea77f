-- vxa history: the transitions that `vxa run --state` kept, and the share of time in which the
-- filter enforced.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local json_records = require "vxa.output.json_records"
local option = require "vxa.options"
local progress = require "vxa.output.progress"
local transitions = require "vxa.history.transitions"
local session = require "vxa.session"
local timeline = require "vxa.history.timeline"

local function define(command)
    command:description("Show the transitions that vxa run --state kept, and for each day the "
        .. "share of time in which the filter enforced.")
    option.add_state(command, "The directory that vxa run has as --state."):count(1)
    option.add_time(command, "--since", "Begin at this")
    option.add_json(command)
end

-- ---- numbers ----------------------------------------------------------------------------

-- A clock that was set can make sums differ from the time that passed by rounding only.
local function stopped_s(sums)
    return math.max(sums.seconds - sums.enforced - sums.fail_open, 0)
end

local function share(sums)
    return sums.seconds > 0 and math.min(sums.enforced / sums.seconds, 1) or nil
end

-- ---- JSON -------------------------------------------------------------------------------

local function print_sums(kind, day, sums)
    local part = share(sums)
    json_records.print {
        record = kind, day = day, since = json_records.time(sums.from),
        ["until"] = json_records.time(sums.to), seconds = json_records.duration(sums.seconds),
        enforced_s = json_records.duration(sums.enforced),
        fail_open_s = json_records.duration(sums.fail_open),
        not_running_s = json_records.duration(stopped_s(sums)),
        enforced_share = part or json_records.null, entered = sums.entries,
    }
end

local function print_json(history)
    for _, stretch in ipairs(history.stretches) do
        json_records.print {
            record = "fail_open", entered = json_records.time(stretch.entered),
            left = json_records.time_or_null(stretch.left), ended = stretch.ended,
            seconds = json_records.duration(stretch.seconds),
            causes = json_records.metrics(stretch.causes),
            fail_open_until = json_records.time_or_null(stretch.lasts_until),
            policy_sha256 = stretch.policy_sha256,
        }
    end
    for _, day in ipairs(history.days) do
        print_sums("day", os.date("%Y-%m-%d", math.floor(day.from)), day)
    end
    print_sums("total", nil, history.total)
end

-- ---- text -------------------------------------------------------------------------------

local function local_time(seconds)
    return os.date("%Y-%m-%d %H:%M:%S", math.floor(seconds))
end

-- "0:12:03"
local function clock(seconds)
    local whole = math.floor(seconds + 0.5)
    return ("%d:%02d:%02d"):format(math.floor(whole / 3600), math.floor(whole / 60) % 60,
        whole % 60)
end

-- Never 100 % if there was a moment without.
local function percent(sums)
    local part = share(sums)
    if not part then return "-" end
    return ("%.2f %%"):format(math.floor(part * 10000) / 100)
end

local function show_stretches(stretches)
    if #stretches == 0 then return console.line("no fail-open") end
    local rows = { { "fail-open entered", "lasted", "end", "cause" } }
    for i, stretch in ipairs(stretches) do
        rows[i + 1] = { local_time(stretch.entered), clock(stretch.seconds),
                        stretch.ended == "unknown" and "unknown: unclean exit" or stretch.ended,
                        format.crossings(stretch.causes) }
    end
    console.lines(format.columns(rows, { [2] = true }))
end

local function row(name, sums)
    return { name, percent(sums), clock(sums.enforced), clock(sums.fail_open),
             clock(stopped_s(sums)), tostring(sums.entries) }
end

local function show_days(history)
    local rows = { { "day", "enforced", "for", "fail-open", "not running", "entered" } }
    for _, day in ipairs(history.days) do
        rows[#rows + 1] = row(os.date("%Y-%m-%d", math.floor(day.from)), day)
    end
    rows[#rows + 1] = row("total", history.total)
    console.lines(format.columns(rows, { [2] = true, [3] = true, [4] = true, [5] = true,
                                         [6] = true }))
end

local function print_text(history)
    console.line("from %s to %s, local time", local_time(history.since),
        local_time(history.total.to))
    show_stretches(history.stretches)
    show_days(history)
end

-- ---- the command ------------------------------------------------------------------------

local function read_records(vxa, directory, check)
    local list, message = transitions.read(vxa, directory, check)
    if not list then exit.fail(2, "%s", message) end
    local path = transitions.path(directory)
    if not list.has_file then
        exit.fail(2, "%s does not exist: no vxa run had --state %s", path, directory)
    elseif list.unreadable > 0 and #list == 0 then
        exit.fail(2, "%s: not a record of vxa run", list.first_unreadable)
    elseif list.unreadable > 0 then
        console.complain(("%s: not a record of vxa run; %s ignored"):format(list.first_unreadable,
            format.count(list.unreadable, "such line")))
    end
    return list
end

local function run(options)
    local vxa = session.load_host()
    local now, since = vxa.time(), options.since
    if since and since > now then
        exit.fail(2, "--since %s is in the future", local_time(since))
    end
    local reading = progress.new(vxa, "reading")
    local function check(done, total)
        exit.if_interrupted(vxa)
        if done then reading:show(done, total) end
    end
    local list = read_records(vxa, options.state, check)
    local life = transitions.read_life(vxa, options.state)
    local is_running = vxa.is_appended_to(transitions.path(options.state))
    local history = timeline.build(list, life, is_running, since, now, check)
    reading:finish()
    if options.json then print_json(history) else print_text(history) end
    return 0
end

return { define = define, run = run }
