-- A steady pace: a late turn does not delay the next ones, and turns that were missed
-- altogether are not made up for.

local pace = {}

-- When the turn after the one due at `due` comes, on the clock of vxa.clock().
function pace.next(vxa, due, interval_s)
    return math.max(due + interval_s, vxa.clock())
end

return pace
