-- The addresses of this machine, in the notation of the driver's flows.

local addresses = {}

addresses.IPV4_PATH = "/proc/net/fib_trie"
addresses.IPV6_PATH = "/proc/net/if_inet6"

local function each_line(path)
    local file = io.open(path)
    local text = file and file:read("*a") or ""
    if file then file:close() end
    return text:gmatch("[^\n]+")
end

-- An address is followed by lines with its scope and type (the kernel's net/ipv4/fib_trie.c).
local function add_ipv4(found)
    local address
    for line in each_line(addresses.IPV4_PATH) do
        address = line:match("|%-%- (%d+%.%d+%.%d+%.%d+)$") or address
        if line:find("/32 host LOCAL") then found[address] = true end
    end
end

-- Returns the start and length of the longest run of at least two zero groups.
local function longest_zero_run(groups)
    local start, length, run = nil, 1, 0
    for i = 1, #groups + 1 do
        if groups[i] == "0" then
            run = run + 1
        else
            if run > length then start, length = i - run, run end
            run = 0
        end
    end
    return start, length
end

-- Returns the address of 32 hexadecimal digits in the notation of RFC 5952.
local function ipv6_notation(digits)
    local groups = {}
    for group in digits:gmatch("....") do groups[#groups + 1] = group:gsub("^0+(.)", "%1") end
    local start, length = longest_zero_run(groups)
    if not start then return table.concat(groups, ":") end
    return table.concat(groups, ":", 1, start - 1) .. "::"
        .. table.concat(groups, ":", start + length)
end

local function add_ipv6(found)
    for line in each_line(addresses.IPV6_PATH) do
        local digits = line:match("^(%x+) ")
        if digits and #digits == 32 then found[ipv6_notation(digits:lower())] = true end
    end
end

-- Returns a function that takes an address and returns whether it is one of this machine's
-- current addresses. If the kernel's files cannot be read, only 127.0.0.0/8 and ::1 are.
function addresses.of_this_machine()
    local found = { ["::1"] = true }
    add_ipv4(found)
    add_ipv6(found)
    return function(address)
        address = address:gsub("^::ffff:(%d+%.)", "%1")
        return found[address] or address:find("^127%.") ~= nil
    end
end

return addresses
