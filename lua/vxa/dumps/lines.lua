-- Parses entries that have one item per line, see docs/diagnostic-texts.md.

local lines = {}

local LONGEST = 65536      -- of a record; the driver's dumps truncate lines to 399 characters
local MOST_ITEMS = 300000  -- the largest table has 131070 connections
local CHECKED_EVERY = 2000

local function add_damaged(parsed, number, line)
    parsed.damaged_count = parsed.damaged_count + 1
    if #parsed.damaged < 3 then
        table.insert(parsed.damaged, { line = number, text = line:sub(1, 60) })
    end
end

-- Reads one line into `parsed`; returns false if it is damaged.
local function add(parsed, line, read)
    if #line > LONGEST then return false end
    if line:find("^# ") then
        table.insert(parsed.headings, line:sub(3))
        return true
    end
    local item = read(line, parsed)
    if item then parsed.items[#parsed.items + 1] = item end
    return item ~= nil
end

-- Returns {items, headings, damaged, damaged_count}: the items that `read(line, parsed)` returns,
-- the lines that begin with "# " without that, and the first of the damaged lines as {line, text}.
-- A damaged line is one for which `read` returns nil, or that does not end; `read` returns false
-- for lines to skip. `check` is called now and then and may raise an error. Returns nil and a
-- message for more items than could be compared.
function lines.parse(text, read, check)
    local parsed = { items = {}, headings = {}, damaged = {}, damaged_count = 0 }
    local at, number = 1, 0
    while at <= #text do
        number = number + 1
        local finish = text:find("\n", at, true)
        local line = text:sub(at, (finish or #text + 1) - 1)
        if not finish or not add(parsed, line, read) then add_damaged(parsed, number, line) end
        at = (finish or #text) + 1
        if number % CHECKED_EVERY == 0 then check() end
        if math.max(#parsed.items, #parsed.headings, parsed.damaged_count) > MOST_ITEMS then
            return nil, ("has more than %d items or damaged lines"):format(MOST_ITEMS)
        end
    end
    return parsed
end

-- Whether a string is a number that the driver's 64 bits can hold.
function lines.is_number(digits)
    return #digits <= 20
end

return lines
