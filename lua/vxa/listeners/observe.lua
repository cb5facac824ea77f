-- vxa run --observe: nothing is judged. The thresholds of the generated policy are bounds, not the
-- user's; a value beyond one means nothing.

local function define(command)
    command:flag("--observe", "Judge nothing and never enter fail-open: only measure, to find "
        .. "thresholds. Needs --record or --metrics.")
end

local Observer = {}
Observer.__index = Observer

local function new(_, options)
    return options.observe and setmetatable({}, Observer) or nil
end

function Observer.annotate(_, result)
    result.would_enter, result.held = nil, nil
    result.over, result.near = {}, {}
    for _, metric in ipairs(result.metrics) do metric.over = false end
    if result.measured then result.text = "observed" end
end

return { define = define, new = new }
