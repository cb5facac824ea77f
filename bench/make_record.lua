-- Prints a record as `vxa run --record` writes it: a web server's days and weeks, with its busy
-- hours, overloads, stalls, restarts and samples that failed. The same arguments print the same
-- record.
--
--     lua5.2 bench/make_record.lua ROWS [SEED] >record.csv      8640 rows are a day

local ROWS = tonumber(arg[1])
if not ROWS or ROWS < 0 then
    io.stderr:write("usage: lua5.2 bench/make_record.lua ROWS [SEED]\n")
    os.exit(2)
end

local START = 1767225600  -- 2026-01-01 00:00:00 UTC
local INTERVAL_S, DAY_S = 10, 86400
local PROCESSORS, MEMORY_KB = 4, 16777216
local MIN_FAIL_OPEN_S = 1800
local LOAD, REFUSED, FREE, STALL = 12, 50, 0.5, 45  -- thresholds
local HEADING = ("# vxa record 1\n"
    .. "# version 1.0.0, engine linux, host web-7, processors %d, interval %d s\n"
    .. '# policy {"SYS_CONF_CONN_REFUSAL_PORT":443,"SYS_THR_CONN_REFUSAL_PCT":{"value":%g},'
    .. '"SYS_THR_RUNQ":{"value":%g},"SYS_THR_FREE_MEM":{"value":%g}}\n')
    :format(PROCESSORS, INTERVAL_S, REFUSED, LOAD, FREE)
local COLUMNS = "time,action,state,port,rqpct,refusalpct,estab,scanmb,frepct,delta_t,errors\n"

-- Park and Miller's generator: the C library's, which math.random uses, is not the same everywhere.
local seed = (tonumber(arg[2]) or 1) % 2147483646 + 1

local function random()
    seed = seed * 16807 % 2147483647
    return seed / 2147483647
end

local function around(value, share)
    return value * (1 + share * (2 * random() - 1))
end

-- Whether something happens in this cycle that happens on average `times_a_day` times a day.
local function happens(times_a_day)
    return random() < times_a_day * INTERVAL_S / DAY_S
end

-- ---- the machine ------------------------------------------------------------------------

-- From 0 at night to 1 at the busiest hour of a working day.
local function activity(time)
    local hour = time % DAY_S / 3600
    local is_weekend = math.floor(time / DAY_S + 3) % 7 >= 5  -- the epoch was a Thursday
    return math.max(0.05, math.sin(math.pi * (hour - 6) / 17)) * (is_weekend and 0.4 or 1)
end

local machine = { load = 0.5, free = 0.4, overload = 0 }

-- The kernel's one-minute average approaches the number of runnable processes.
local function advance(now, seconds)
    if machine.overload == 0 and happens(1.2) then machine.overload = 20 + random() * 60 end
    machine.overload = math.max(0, machine.overload - 1)
    local is_over = machine.overload > 0
    local runnable = is_over and around(PROCESSORS * 5, 0.3)
        or around(PROCESSORS * 0.7 * activity(now), 0.6)
    machine.load = machine.load + (runnable - machine.load) * (1 - math.exp(-seconds / 60))
    local free = is_over and 0.04 or 0.45 - 0.25 * activity(now)
    machine.free = machine.free + (around(free, 0.1) - machine.free) * 0.02
    return is_over
end

local function traffic(now, seconds, is_over)
    local new = PROCESSORS * (is_over and 150 or 40 * activity(now))
    local opened = math.floor(around(new * seconds, 0.2))
    local refused = math.floor(around(opened * (is_over and 0.35 or 0.01), 0.5))
    local bytes = math.floor((opened - refused) * around(120000, 0.3))
    return opened, refused, bytes
end

-- ---- rows -------------------------------------------------------------------------------

local function exact(number)
    for digits = 15, 17 do
        local text = ("%." .. digits .. "g"):format(number)
        if tonumber(text) == number then return text end
    end
end

local monitor = { state = "Deactivated" }

local function is_over(row)
    if row.rqpct > LOAD or row.frepct < FREE or (row.delta_t or 0) > STALL then return true end
    return (row.refusalpct or 0) > REFUSED and not monitor.has_failed
end

local function decide(now, row)
    if monitor.state == "Activated" then
        if now - monitor.since < MIN_FAIL_OPEN_S then return 1 end
        monitor.state = "Deactivated"
    elseif is_over(row) then
        monitor.state, monitor.since = "Activated", now
        return 1
    end
    return 0
end

local function sample(now, seconds, is_first)
    local overloaded = advance(now, seconds)
    local opened, refused, bytes = traffic(now, seconds, overloaded)
    local free_kb = math.floor(MEMORY_KB * machine.free)
    local row = { rqpct = math.floor(machine.load * 10) / 10, frepct = free_kb * 100 / MEMORY_KB }
    if is_first then return row end
    row.refusalpct = opened / seconds > 5 and 100 * refused / opened or 0
    row.estab = (opened - refused) / seconds / PROCESSORS
    row.scanmb = bytes / seconds / (PROCESSORS * 1048576)
    row.delta_t = seconds
    return row
end

local METRICS = { "rqpct", "refusalpct", "estab", "scanmb", "frepct", "delta_t" }

local function write(now_us, action, row, errors)
    local fields = { ("%s.%06d"):format(os.date("!%Y-%m-%d %H:%M:%S", math.floor(now_us / 1e6)),
                                        now_us % 1e6), action, monitor.state, 443 }
    for i, name in ipairs(METRICS) do fields[4 + i] = row[name] and exact(row[name]) or "" end
    fields[11] = errors or ""
    io.write(table.concat(fields, ","), "\n")
end

local NO_MEMORY = '"cannot read /proc/meminfo: ""Cannot allocate memory"", again"'

io.write(HEADING, COLUMNS)
local now_us, is_first = START * 1e6, true
for i = 1, ROWS do
    local pause_us = INTERVAL_S * 1e6 + math.floor(random() * 400) - 200
    if happens(0.5) then pause_us = pause_us + math.floor((20 + random() * 60) * 1e6) end
    if i > 1 and happens(0.3) then
        pause_us, is_first, monitor.state = math.floor(180e6 * (1 + random())), true, "Deactivated"
        io.write(HEADING)
    end
    now_us = now_us + pause_us
    local now = now_us / 1e6
    local row = sample(now, pause_us / 1e6, is_first)
    if not is_first and happens(2) then
        row.frepct, row.refusalpct, row.estab, row.scanmb = nil, nil, nil, nil
        write(now_us, 7, row, NO_MEMORY)
        monitor.has_failed = true
    else
        write(now_us, decide(now, row), row)
        monitor.has_failed = false
    end
    is_first = false
end
