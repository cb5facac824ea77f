-- Where a policy comes from, what is warned of, and how --port changes it.

local cases = require "cases"
local json = require "dkjson"
local policy = require "command.policy"

local accepting = { check_json = function() return true end }

local function two_cpus()
    return 2
end

local function with_file(text, body)
    local path = os.tmpname()
    local file = assert(io.open(path, "wb"))
    file:write(text)
    file:close()
    local ok, message = pcall(body, path)
    os.remove(path)
    if not ok then error(message, 0) end
end

local function warnings_in(chosen)
    return table.concat(chosen.warnings, "\n")
end

-- Policy text, settings in force, pattern of its warnings ("" for none).
local policies = {
    { "{}", {}, "^$" },
    { '{"SYS_THR_RUNQ": {"value": 8}}', { SYS_THR_RUNQ = 8 }, "^$" },
    { '{"sys_thr_runq": {"VALUE": 8}}', { SYS_THR_RUNQ = 8 }, "^$" },
    { '{"SYS_THR_RUNQ": 8}', {}, '^SYS_THR_RUNQ must be an object such as {"value": 200}' },
    { '{"SYS_THR_RUNQ": {"value": "8"}}', {}, "^SYS_THR_RUNQ must be an object" },
    { '{"SYS_THR_RUNQ": {"value": 0}}', {}, "^SYS_THR_RUNQ 0 is out of bounds %(above 0 to 200%)" },
    { '{"SYS_THR_FREE_MEM": {"value": 25.1}}', {}, "^SYS_THR_FREE_MEM 25.1 is out of bounds" },
    { '{"SYS_CONF_MIN_ACT_DURATION": 0}', { SYS_CONF_MIN_ACT_DURATION = 0 }, "^$" },
    { '{"SYS_CONF_MIN_ACT_DURATION": -1}', {}, "is out of bounds %(0 to 60%)" },
    { '{"SYS_CONF_CONN_REFUSAL_PORT": "443"}', { SYS_CONF_CONN_REFUSAL_PORT = 0 },
      "^SYS_CONF_CONN_REFUSAL_PORT is no number and counts as 0$" },
    { '\239\187\191{ "SYS_THR_RUNQ" : {"x": {}, "value": 8, "VALUE": 9} ,"sys_thr_runq":{"value":150}}',
      { SYS_THR_RUNQ = 8 }, "^SYS_THR_RUNQ has its value repeated; the first counts\n"
      .. "'sys_thr_runq' is repeated; the first counts$" },
    { '{"SYS_CONF_RECOVER_FACTOR": 300, "SYS_CONF_RECOVER_FACTOR": 3}', {},
      "out of bounds .*\n'SYS_CONF_RECOVER_FACTOR' is repeated" },
    { '{"SYS_THR_RUNQUEUE": {"value": 8}, "x": 1}', {},
      "^'SYS_THR_RUNQUEUE' is no setting; it is ignored\n'x' is no setting; it is ignored$" },
}

for _, row in ipairs(policies) do
    local text, values, warnings = table.unpack(row)
    cases.case(text, function()
        with_file(text, function(path)
            local chosen = policy.choose({ policy = path }, accepting, two_cpus)
            cases.equal(chosen.values, values, "settings")
            cases.equal(chosen.text, text, "text")
            cases.matches(warnings_in(chosen), warnings, "warnings")
        end)
    end)
end

-- Configuration file, settings in force, pattern of its warnings.
local files = {
    { "SYSTEM_RUNQ_PCT_THRESHOLD=8\n", { SYS_THR_RUNQ = 8 }, "^$" },
    { "# remark\n\nSYSTEM_RUNQ_PCT_THRESHOLD= 1.5e1x", { SYS_THR_RUNQ = 15 }, "^$" },
    { "SYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=9\n", { SYS_THR_RUNQ = 9 }, "^$" },
    { "SYSTEM_RUNQ_PCT_THRESHOLD=8\nSYSTEM_RUNQ_PCT_THRESHOLD=250\n", { SYS_THR_RUNQ = 8 },
      "^line 2: SYSTEM_RUNQ_PCT_THRESHOLD 250 is out of bounds %(above 0 to 200%)" },
    { "SYSTEM_MIN_ACT_DURATION=0\n", {}, "^line 1: SYSTEM_MIN_ACT_DURATION 0 is out of bounds" },
    { " SYSTEM_RUNQ_PCT_THRESHOLD=8\n", {}, "is no setting; the line is ignored" },
    { "SYSTEM_RUNQ_PCT_THRESHOLD =8\n", {}, "is no setting; the line is ignored" },
    { "SYSTEM_RUNQ_PCT_THRESHOLD=many\n", {}, "has no number" },
}

for _, row in ipairs(files) do
    local text, values, warnings = table.unpack(row)
    cases.case(("%q"):format(text), function()
        with_file(text, function(path)
            policy.CONF_PATH = path
            local chosen = policy.choose({}, accepting, two_cpus)
            cases.equal(chosen.values, values, "settings")
            cases.equal(chosen.text, "", "text")
            cases.matches(warnings_in(chosen), warnings, "warnings")
        end)
    end)
end

local MISSING = "/nonexistent/vx_filter.conf"

-- The module takes the first of repeated members; dkjson the last. So the text with --port
-- is judged by its members in order.
local function first_members(text)
    local found = {}
    for key, number in text:gmatch('"(SYS_[%u_]+)"%s*:%s*{?[^%d}]*([%d.]+)') do
        found[key] = found[key] or tonumber(number)
    end
    return found
end

-- Policy text (nil: the default), direction, and members of the result.
local ports = {
    { nil, false, { SYS_CONF_CONN_REFUSAL_PORT = 443, SYS_CONF_CONN_REFUSAL_OUTBOUND = 0,
                    SYS_THR_CONN_REFUSAL_PCT = 50, SYS_THR_RUNQ = 8 } },
    { "{ }", true, { SYS_CONF_CONN_REFUSAL_PORT = 443, SYS_CONF_CONN_REFUSAL_OUTBOUND = 1,
                     SYS_THR_CONN_EST_PER_CPU = 5000 } },
    { '\n{"SYS_CONF_CONN_REFUSAL_PORT": 80, "SYS_CONF_CONN_REFUSAL_OUTBOUND": 1}', false,
      { SYS_CONF_CONN_REFUSAL_PORT = 443, SYS_CONF_CONN_REFUSAL_OUTBOUND = 0,
        SYS_THR_TOTAL_SCAN_MBYTES_PER_CPU = 500 } },
    { '{"SYS_THR_CONN_REFUSAL_PCT": {"value": 7}, "SYS_THR_FREE_MEM": {"value": 2}}', false,
      { SYS_THR_CONN_REFUSAL_PCT = 7, SYS_THR_FREE_MEM = 2 }, "SYS_THR_CONN_EST_PER_CPU" },
}

for i, row in ipairs(ports) do
    local text, outbound, expected, absent = table.unpack(row, 1, 4)
    cases.case("--port on policy " .. i, function()
        policy.CONF_PATH = MISSING
        with_file(text or "", function(path)
            local options = { policy = text and path, port = 443, outbound = outbound }
            local chosen = policy.choose(options, accepting, two_cpus)
            assert(json.decode(chosen.text), "not JSON: " .. chosen.text)
            local found = first_members(chosen.text)
            for key, value in pairs(expected) do
                cases.equal(found[key], value, key .. " in the text")
                cases.equal(chosen.values[key], value, key)
            end
            if absent then cases.equal(found[absent], nil, absent) end
        end)
    end)
end

cases.case("--port on a configuration file carries its settings over", function()
    with_file("SYSTEM_MIN_FREE_MEM_PCT=3\nSYSTEM_UNLOAD_DRIVER=1\n", function(path)
        policy.CONF_PATH = path
        local found = first_members(policy.choose({ port = 443 }, accepting, two_cpus).text)
        cases.equal({ found.SYS_THR_FREE_MEM, found.SYS_CONF_UNLOAD_DRIVER, found.SYS_THR_RUNQ },
            { 3, 1, nil }, "members")
    end)
end)

-- Processors, and the default's run-queue threshold.
for _, row in ipairs { { 0, 4 }, { 1, 4 }, { 8, 32 }, { 256, 200 } } do
    cases.case(row[1] .. " processors", function()
        policy.CONF_PATH = MISSING
        local chosen = policy.choose({}, accepting, function() return row[1] end)
        cases.equal(json.decode(chosen.text).SYS_THR_RUNQ.value, row[2], "threshold")
    end)
end

cases.finish()
