-- Parses vxa_stats.txt.

local lines = require "vxa.dumps.lines"

-- Items that are not counters, and so may fall and have no rate. The kernel's names, see
-- Documentation/networking/snmp_counter.rst and the sources of /proc/net.
local gauges = {}
for name in ([[
    Ip.Forwarding Ip.DefaultTTL Tcp.RtoAlgorithm Tcp.RtoMin Tcp.RtoMax Tcp.MaxConn Tcp.CurrEstab
    MPTcpExt.MPCurrEstab sockets.used conntrack.count conntrack.max conntrack.buckets
    conntrack.over_65535 scan.on scan.port scan.pending blacklist.elements softnet.backlog_len
    softnet.input_qlen softnet.process_qlen]]):gmatch("%S+") do
    gauges[name] = true
end

-- rules.sets, TCP.inuse and FRAG6.memory of sockstat, eth0.ifindex.
local gauge_patterns = { "^rules%.", "^[A-Z]+6?%.%l+$", "%.ifindex$" }

local function is_gauge(name)
    if gauges[name] then return true end
    for _, pattern in ipairs(gauge_patterns) do
        if name:find(pattern) then return true end
    end
    return false
end

local CLOCK = "sim.tick"

local function read(line)
    local name, sign, digits = line:match("^(%S+) (%-?)(%d+)$")
    if not name or not lines.is_number(digits) then return nil end
    if name == CLOCK then return false end
    return { key = name, value = sign .. digits,
             kind = (sign ~= "" or is_gauge(name)) and "gauge" or "counter" }
end

-- Items are {key: the name, value: a decimal number as a string, kind: "counter" or "gauge"}.
return function(text, check)
    return lines.parse(text, read, check)
end
