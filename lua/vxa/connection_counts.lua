-- How many connections were observed, reported and refused, in total and by service. With a state
-- directory, over all runs that used it:
--
--     observed = reported + pending + refused
--
-- holds at every moment, also after a run was killed: then all of them have the values last saved.

local complete_lines = require "vxa.complete_lines"
local filter = require "filter"

local connection_counts = {}

local FILE = "/connections.txt"
local HEADING, ENDING = "vxa connections 1", "end"
local MOST_BYTES = 4194304  -- several times what KEYS_KEPT rows take
local TOTALS = { "observed", "reported", "refused", "reports" }
local ENOENT = 2

-- Number of services that are counted one by one.
connection_counts.SERVICES_KEPT = 20

local Counts = {}
Counts.__index = Counts

local function new()
    return setmetatable({ observed = 0, reported = 0, refused = 0, reports = 0, services = {},
                          pending = {} }, Counts)
end

-- ---- services ---------------------------------------------------------------------------

local function service_key(protocol, direction, port)
    return ("%s %s %d"):format(protocol, direction, port)
end

-- Returns the services of a report, most frequent first: {protocol, direction, port, count}.
local function services_of(report)
    local by_key, list = {}, {}
    for _, row in ipairs(report.rows) do
        local direction = row.cf_outbound_connection == 1 and "out" or "in"
        local key = service_key(row.protocol, direction, row.dst_port)
        if not by_key[key] then
            by_key[key] = { key = key, protocol = row.protocol, direction = direction,
                            port = row.dst_port, count = 0 }
            list[#list + 1] = by_key[key]
        end
        by_key[key].count = by_key[key].count + row.count
    end
    table.sort(list, function(a, b)
        if a.count ~= b.count then return a.count > b.count end
        return a.key < b.key
    end)
    return list
end

-- A service keeps its place: if others displaced it, its count would have to move to theirs, and
-- neither would be a counter any more.
function Counts:find_or_add(service)
    for _, known in ipairs(self.services) do
        if known.key == service.key then return known end
    end
    if #self.services == connection_counts.SERVICES_KEPT then return nil end
    local added = { key = service.key, protocol = service.protocol,
                    direction = service.direction, port = service.port, count = 0 }
    table.insert(self.services, added)
    return added
end

-- Counts a report of Feedback:report.
function Counts:add_report(report)
    self.reports = self.reports + 1
    self.reported = self.reported + report.observations
    self.refused = self.refused + report.refused
    for _, service in ipairs(services_of(report)) do
        local counted = self:find_or_add(service)
        if counted then counted.count = counted.count + service.count end
    end
end

-- Returns the reported connections to services that are not counted one by one.
function Counts:other()
    local rest = self.reported
    for _, service in ipairs(self.services) do rest = rest - service.count end
    return rest
end

-- ---- the file ---------------------------------------------------------------------------

-- Returns the text of the file.
local function encode(counts, refused, rows)
    local lines = { HEADING }
    local function add(...) lines[#lines + 1] = ("%s %.0f"):format(...) end
    add("observed", counts.observed)
    add("reported", counts.reported)
    add("refused", refused)
    add("reports", counts.reports)
    for _, service in ipairs(counts.services) do
        add("service " .. service.key, service.count)
    end
    for _, row in ipairs(rows) do
        add(("pending %s %s %d %d"):format(row.protocol, row.dst_addr, row.dst_port, row.flags),
            row.count)
    end
    lines[#lines + 1] = ENDING
    return table.concat(lines, "\n") .. "\n"
end

-- Up to 15 digits are exact in a Lua number.
local function whole(digits, most)
    local number = #digits <= 15 and tonumber(digits)
    return number and number <= (most or 1e15) and number
end

local read = {}  -- by first word: adds the rest of the line to the counts; false if it is wrong

for _, name in ipairs(TOTALS) do
    read[name] = function(counts, rest)
        counts[name] = rest:find("^%d+$") and whole(rest)
        return counts[name]
    end
end

local PROTOCOLS = { tcp = 0, udp = filter.UDP_CONNECTION }  -- with their flags

function read.service(counts, rest)
    local protocol, direction, port, count = rest:match("^(%w+) (%w+) (%d+) (%d+)$")
    if not PROTOCOLS[protocol] or direction ~= "in" and direction ~= "out" then return false end
    port, count = whole(port, 65535), whole(count)
    if not port or not count then return false end
    local key, size = service_key(protocol, direction, port), #counts.services
    local added = counts:find_or_add { key = key, protocol = protocol, direction = direction,
                                       port = port }
    if #counts.services == size then return false end  -- repeated, or too many
    added.count = count
    return true
end

function read.pending(counts, rest)
    local protocol, address, port, flags, count =
        rest:match("^(%w+) ([%x:.]+) (%d+) (%d+) (%d+)$")
    local flag = PROTOCOLS[protocol]
    if not flag or #address > 45 or #counts.pending == filter.KEYS_KEPT then return false end
    port, flags, count = whole(port, 65535), whole(flags), whole(count, 2 ^ 32 - 1)
    if flags ~= flag and flags ~= flag + filter.OUTBOUND_CONNECTION then return false end
    table.insert(counts.pending, { protocol = protocol, dst_addr = address, dst_port = port,
                                   flags = flags, count = count })
    return port and count
end

local function balances(counts)
    local pending = 0
    for _, row in ipairs(counts.pending) do pending = pending + row.count end
    return counts.observed == counts.reported + counts.refused + pending and counts:other() >= 0
end

-- Returns the counts of the text, or nil if it is not a complete file of this format.
local function decode(text)
    local counts, lines = new(), {}
    for line in complete_lines(text) do lines[#lines + 1] = line end
    if lines[1] ~= HEADING or lines[#lines] ~= ENDING then return nil end
    for i = 2, #lines - 1 do
        local word, rest = lines[i]:match("^(%l+) (.*)$")
        if not read[word] or not read[word](counts, rest) then return nil end
    end
    return balances(counts) and counts or nil
end

-- Returns the counts saved in the directory, and what is wrong with them. Without a directory,
-- without saved counts or with wrong ones, everything is 0. `pending` has the rows to feed again.
function connection_counts.load(vxa, directory)
    if not directory then return new() end
    local path = directory .. FILE
    local text, message, code = vxa.read_file(path, MOST_BYTES)
    local counts = text and decode(text)
    if counts then
        counts.saved = counts:stamp(counts.refused)
        return counts
    end
    if code == ENOENT then return new() end
    return new(), (message or path .. ": not a file of this command, or incomplete")
end

-- Equal stamps: nothing has changed.
function Counts:stamp(refused)
    return ("%.0f %.0f %.0f %.0f"):format(self.observed, self.reported, refused, self.reports)
end

-- Saves the counts in the directory unless it has them already. `refused`: the total; `pending()`
-- returns the rows that are not published yet. Returns nil and a message if that fails.
function Counts:save(vxa, directory, refused, pending)
    local stamp = self:stamp(refused)
    if stamp == self.saved then return true end
    local replaced, message = vxa.replace_file(directory .. FILE, encode(self, refused, pending()))
    if replaced then self.saved = stamp end
    return replaced, message
end

return connection_counts
