-- Compares the driver's tables except the rules. Each function gets a section and both parsed
-- entries, see lua/vxa/dumps.

local index = require "vxa.diff.index"
local pairing = require "vxa.diff.pairing"

local tables = {}

-- ---- counters ---------------------------------------------------------------------------

local LOW_DIGITS = 9

-- Returns a decimal number as two, the higher and the lower digits, since a Lua number is exact
-- below 2^53 only.
local function split(text)
    local sign, digits = text:match("^(%-?)(%d+)$")
    local factor = sign == "-" and -1 or 1
    local high = tonumber(digits:sub(1, -LOW_DIGITS - 1)) or 0
    return factor * high, factor * tonumber(digits:sub(-LOW_DIGITS))
end

local function difference(older, newer)
    local old_high, old_low = split(older)
    local new_high, new_low = split(newer)
    return (new_high - old_high) * 10 ^ LOW_DIGITS + new_low - old_low
end

-- Statistics and sockets. A counter that ran backwards began again at 0 in between.
local function compare_number(section, old, new, kind)
    local change = difference(old.value, new.value)
    local row = { kind = new.kind or kind, name = new.key, older = old.value, newer = new.value }
    local is_counter = old.kind == "counter" and new.kind == "counter"
    if is_counter and change < 0 then return section:add("restarted", row) end
    row.change, row.per_second = change, is_counter and section:rate(change) or nil
    section:add("changed", row)
end

local function compare_value(section, old, new, kind)
    section:add("changed", { kind = kind, name = new.key, older = old.value, newer = new.value })
end

-- Returns a function that compares items with the same key by their values.
local function compare_items(kind, compare)
    return function(section, older, newer, check)
        pairing.each(older.items, newer.items, check, function(old, new)
            if not old then
                section:add("appeared",
                    { kind = new.kind or kind, name = new.key, newer = new.value })
            elseif not new then
                section:add("vanished",
                    { kind = old.kind or kind, name = old.key, older = old.value })
            elseif old.value ~= new.value then
                compare(section, old, new, kind)
            end
        end)
    end
end

tables.statistics = compare_items("counter", compare_number)
tables.sockets = compare_items("sockets", compare_number)
tables.variables = compare_items("variable", compare_value)

-- ---- blacklist --------------------------------------------------------------------------

-- Seconds by which a time can seem to differ: both are rounded down.
local ROUNDING_S = 1

local function has_expired(item, elapsed)
    return item.expires_s and elapsed and item.expires_s <= elapsed + ROUNDING_S
end

-- Remaining times only fall, unless the address was listed again.
local function is_renewed(old, new, elapsed)
    return new.expires_s and old.expires_s and new.expires_s > old.expires_s
        and not (elapsed and elapsed <= 0)
end

function tables.blacklist(section, older, newer, check)
    pairing.each(older.items, newer.items, check, function(old, new)
        local row = { kind = "address", name = (new or old).key, older = old and old.value,
                      newer = new and new.value }
        if not old then
            section:add("added", row)
        elseif not new then
            section:add(has_expired(old, section.elapsed) and "expired" or "removed", row)
        elseif old.value ~= new.value then
            section:add("changed", row)
        elseif is_renewed(old, new, section.elapsed) then
            section:add("renewed", row)
        end
    end)
end

-- ---- connections ------------------------------------------------------------------------

-- Returns the change of packets and bytes, nil if they were not counted both times.
local function traffic(older, newer)
    local packets, bytes = older:match("^(%d+)/(%d+)$")
    local packets_now, bytes_now = newer:match("^(%d+)/(%d+)$")
    if not packets or not packets_now then return nil end
    return difference(packets, packets_now), difference(bytes, bytes_now)
end

-- Adds what a connection transferred to the section's sums; returns false if its counts ran
-- backwards, so that it is another connection of the same addresses and ports.
local function add_traffic(sums, old, new)
    if old.forward == new.forward and old.backward == new.backward then return true end
    local packets, bytes = traffic(old.forward, new.forward)
    local packets_back, bytes_back = traffic(old.backward, new.backward)
    if math.min(packets or 0, bytes or 0, packets_back or 0, bytes_back or 0) < 0 then
        return false
    end
    if packets or packets_back then
        sums.connections = sums.connections + 1
        sums.bytes = sums.bytes + (bytes or 0)
        sums.bytes_back = sums.bytes_back + (bytes_back or 0)
    end
    return true
end

local function compare_connection(section, old, new)
    local row = { kind = "connection", name = (new or old).key, older = old and old.value,
                  newer = new and new.value }
    if not old then return section:add("added", row) end
    if not new then return section:add("removed", row) end
    local is_same = add_traffic(section.traffic, old, new)
    if not is_same then return section:add("replaced", row) end
    if old.value ~= new.value then section:add("changed", row) end
end

-- Returns the row of an item's service and state.
local function service_row(services, item)
    local service = services.by_name:get(item.service)
    if not service then
        service = { key = item.service, states = {} }
        services.by_name:put(service)
    end
    local state = item.value:match("^%S+")
    local row = service.states[state]
    if not row then
        row = { service = item.service, state = state, older = 0, newer = 0, added = 0,
                removed = 0 }
        service.states[state] = row
        services.rows[#services.rows + 1] = row
    end
    return row
end

-- Returns the services with changes, those with the most first.
local function changed_services(services)
    local rows = {}
    for _, row in ipairs(services.rows) do
        row.changes = row.added + row.removed + math.abs(row.newer - row.older)
        if row.changes > 0 then rows[#rows + 1] = row end
    end
    table.sort(rows, function(a, b)
        if a.changes ~= b.changes then return a.changes > b.changes end
        if a.service ~= b.service then return a.service < b.service end
        return a.state < b.state
    end)
    return rows
end

function tables.connections(section, older, newer, check)
    local services = { by_name = index.new(), rows = {} }
    section.traffic = { connections = 0, bytes = 0, bytes_back = 0 }
    pairing.each(older.items, newer.items, check, function(old, new)
        compare_connection(section, old, new)
        local before, now = old and service_row(services, old), new and service_row(services, new)
        if old then before.older = before.older + 1 else now.added = now.added + 1 end
        if new then now.newer = now.newer + 1 else before.removed = before.removed + 1 end
    end)
    section.services = changed_services(services)
    if section.traffic.connections > 0 then section.total = section.total + 1 end
end

-- ---- lines ------------------------------------------------------------------------------

-- Records that are only ever appended.
tables.records = compare_items("record", function() end)

return tables
