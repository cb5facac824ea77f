-- The head of what `vxa show` prints about a package: what its manifest says, in about ten lines,
-- and whether the package is what it describes. The manifest may come from anywhere.

local console = require "vxa.output.console"
local format = require "vxa.output.format"
local printable = require "vxa.output.printable"

local package_text = {}

local WIDTH, INDENT = 80, 12
local LONGEST, MOST_LINES = 500, 20

local function cut(text)
    return #text > LONGEST and text:sub(1, LONGEST) .. "..." or text
end

local function show_line(title, text)
    local lines = format.wrap(printable(cut(text)), WIDTH - INDENT)
    for i, line in ipairs(lines) do
        console.line("%s%s", ("%-" .. INDENT .. "s"):format(i == 1 and title or ""), line)
    end
end

-- One line or more for each of the items.
local function show_list(title, items)
    for i = 1, math.min(#items, MOST_LINES) do show_line(i == 1 and title or "", items[i]) end
    if #items > MOST_LINES then show_line("", ("and %d more"):format(#items - MOST_LINES)) end
end

-- Joins what is known.
local function join(separator, ...)
    local known = {}
    for i = 1, select("#", ...) do
        local text = select(i, ...)
        if text then known[#known + 1] = text end
    end
    return #known > 0 and table.concat(known, separator) or "not known"
end

-- A member that a line of its own shows is not listed among the unknown ones.
local has_line = { state = true, policy = true }

local function why_unknown(content, member)
    for _, row in ipairs(content.unknown or {}) do
        if row.member == member then return "not known: " .. row.reason end
    end
    return "not known"
end

local function host_line(content)
    local host = content.host or {}
    local kernel = host.kernel and join(" ", host.kernel, host.architecture)
    return join(", ", host.name or "name not known", kernel, host.distribution)
end

local function time_line(content)
    local finish = content["end"]
    if content.start and finish then
        -- The same day is not repeated.
        finish = finish:sub(1, 11) == content.start:sub(1, 11) and finish:sub(12) or finish
        finish = "to " .. finish
    end
    return join(" ", content.start, finish, content.time_zone and "(" .. content.time_zone .. ")")
end

local function maker_line(content)
    local build = content.build_ids and content.build_ids["vxa.so"]
    return join(", ", "vxa " .. (content.version or "of an unknown version")
        .. (type(build) == "string" and (" (build %s)"):format(build:sub(1, 12)) or ""),
        content.user and content.user.uid and format.user(content.user),
        content.redacted and "masked by vxa redact")
end

local function engine_line(content)
    local lacking = {}
    for _, row in ipairs(content.capabilities or {}) do
        if not row.available then lacking[#lacking + 1] = row.name end
    end
    return join("; ", content.engine,
        #lacking > 0 and "not available: " .. table.concat(lacking, ", ") or nil)
end

-- `policy`: one that has been recorded by a run.
local function time_in_force(policy, state)
    local ended = state and state.run_ended
    return ("in force %s %s%s"):format(ended and "from" or "since", policy.recorded,
        ended and " until the run ended" or "")
end

local function policy_line(content)
    local policy = content.policy
    if not policy then return why_unknown(content, "policy") end
    local count = 0
    for _ in pairs(policy.settings or {}) do count = count + 1 end
    local warnings = #(policy.warnings or {})
    return join(", ", policy.source, format.count(count, "setting"),
        warnings > 0 and format.count(warnings, "warning") or nil,
        policy.recorded and time_in_force(policy, content.state) or nil)
end

local state_names = { Activated = "fail-open", Deactivated = "enforcing" }

-- The record is as another program wrote it.
local function causes(transition)
    local known = {}
    for _, cause in ipairs(type(transition.causes) == "table" and transition.causes or {}) do
        if type(cause) == "table" and type(cause.name) == "string"
            and type(cause.value) == "number" and type(cause.threshold) == "number" then
            known[#known + 1] = ("%s %s, threshold %s"):format(cause.name,
                format.number(cause.value), format.number(cause.threshold))
        end
    end
    return #known > 0 and table.concat(known, "; ") or nil
end

-- A run that ended in fail-open left no transition of its own.
local function transition_part(state)
    local transition = state.last_transition
    if not transition or type(transition.time) ~= "string" then return nil end
    local is_current = state.fail_open == "Activated" and transition.record == "entered"
    local till = is_current and state.in_use and not state.run_ended
        and transition.fail_open_until
    local change = type(transition.record) == "string" and transition.record .. " at " or "at "
    return join("; ", join(": ", (is_current and "" or "last transition: ") .. change
        .. transition.time, causes(transition)),
        type(till) == "string" and "lasts at least until " .. till or nil)
end

-- What the filter did or, if its run has ended, did last.
local function state_part(state)
    local name = state_names[state.fail_open] or state.fail_open
    if not name then return nil end
    if state.run_ended then
        return ("the run ended at %s, %s until then"):format(state.run_ended, name)
    end
    if state.in_use then return name end
    return state.last_cycle and name .. ", by a run that did not record its end"
        or name .. " when the last run ended"
end

local function state_line(content)
    local state = content.state
    if not state then return why_unknown(content, "state") end
    local cycle = state.last_cycle and state.last_cycle.time
    return join("; ", state_part(state), transition_part(state),
        type(cycle) == "string" and "last seen running at " .. cycle or nil)
end

local function failures_line(content)
    local dropped = content.failed_calls_dropped or 0
    return ("%s failed, %s written"):format(
        format.count(#(content.failed_calls or {}) + dropped, "driver call"),
        format.count(#(content.events or {}), "event"))
end

-- One line for all entries that lack the same for the same reason.
local function problem_rows(content)
    local groups, lines = {}, {}
    for _, row in ipairs(content.entries) do
        local last, reason = groups[#groups], row.reason or "no reason is given"
        if last and last.state == row.state and last.reason == reason then
            last.names = last.names .. ", " .. row.name
        elseif row.state ~= "ok" then
            groups[#groups + 1] = { state = row.state, reason = reason, names = row.name }
        end
    end
    for i, group in ipairs(groups) do
        lines[i] = ("%s %s: %s"):format(group.state, group.names, group.reason)
    end
    return lines
end

local function unknown_rows(content)
    local lines = {}
    for _, row in ipairs(content.unknown or {}) do
        if not has_line[row.member] then lines[#lines + 1] = row.member .. ": " .. row.reason end
    end
    return lines
end

local function problem_lines(problems)
    local lines = {}
    for i, row in ipairs(problems) do lines[i] = row.name .. ": " .. row.problem end
    return lines
end

-- `verified`: {matching=, problems=}.
function package_text.manifest(content, verified)
    show_line("host", host_line(content))
    show_line("made", time_line(content))
    show_line("by", maker_line(content))
    show_line("engine", engine_line(content))
    show_line("policy", policy_line(content))
    show_line("state", state_line(content))
    show_line("failures", failures_line(content))
    show_list("lacking", problem_rows(content))
    show_list("not known", unknown_rows(content))
    show_list("original", problem_lines(content.original_problems or {}))
    package_text.verification(verified)
end

function package_text.verification(verified)
    local wrong = problem_lines(verified.problems)
    show_line("sums", ("%s the manifest%s"):format(
        verified.matching == 1 and "1 entry matches"
            or ("%d entries match"):format(verified.matching),
        #wrong > 0 and ("; %d %s not"):format(#wrong, #wrong == 1 and "does" or "do") or ""))
    show_list("WRONG", wrong)
end

-- Without a manifest that can be used.
function package_text.without_manifest(reason, has_one)
    console.line("manifest    %s", has_one
        and "cannot be used, so no sum is verified: " .. printable(cut(reason))
        or "none: not a package of vxa diag, or one of an older version")
end

return package_text
