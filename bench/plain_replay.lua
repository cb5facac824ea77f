-- The replay of a record in plain Lua, written for speed: what vxa.replay is measured against.
-- Metrics that need the monitored port are judged, too.

local find, match, tonumber = string.find, string.match, tonumber

local COLUMNS = "^%d+%-%d+%-(%d+) (%d+):(%d+):([^,]*),(%d),[^,]*,[^,]*,([^,]*),([^,]*),([^,]*),"
    .. "([^,]*),([^,]*),([^,]*),"
local MINIMUM_S, DAY_S = 1800, 86400

-- Returns how often fail-open is entered. The days of the record are in one month.
return function(path, policy)
    local load, refused, free = policy.SYS_THR_RUNQ, policy.SYS_THR_CONN_REFUSAL_PCT,
        policy.SYS_THR_FREE_MEM
    local entries, since, missed = 0, nil, false
    for line in io.lines(path) do
        local day, h, m, s, action, rqpct, refusalpct, _, _, frepct, delta_t = match(line, COLUMNS)
        if not day then
            if find(line, "^# vxa") then since, missed = nil, false end
        elseif tonumber(action) > 1 then
            missed = true
        else
            local now = day * DAY_S + h * 3600 + m * 60 + s
            local own = tonumber(rqpct) > load or tonumber(frepct) < free
                or (tonumber(delta_t) or 0) > 45
            local rate = not missed and (tonumber(refusalpct) or 0) > refused
            if since then
                if now - since >= MINIMUM_S then since = nil end
            elseif own or rate then
                since, entries = now, entries + 1
            end
            missed = false
        end
    end
    return entries
end
