-- Connection feedback in plain Lua, written for speed: what the module is measured against.

local MAX_KEYS = 10000
local plain_feedback = { MAX_KEYS = MAX_KEYS }

local store, stored = {}, 0

function plain_feedback.add(key, text, count)
    if count == 0 then return end
    local entry = store[key]
    if entry then
        entry.count = entry.count + count
    elseif stored < MAX_KEYS then
        stored = stored + 1
        store[key] = { text = text, count = count }
    end
end

function plain_feedback.clear() store, stored = {}, 0 end

local band, tonumber = bit32.band, tonumber
local find, gmatch, match, sub = string.find, string.gmatch, string.match, string.sub
local is_number = { pid = true, dst_port = true, tls_version = true, cipher = true,
                    container_type = true }

-- As strtol: "12abc" is 12, "abc" is 0.
local function integer(value)
    return tonumber(value) or tonumber(match(value, "^%s*([+-]?%d+)")) or 0
end

local function set_flags(row, value)
    local flags = integer(value)
    row.cf_ssl_connection = band(flags, 0x1) ~= 0 and 1 or 0
    row.cf_start_tls = band(flags, 0x100) ~= 0 and 1 or 0
    row.cf_udp_connection = band(flags, 0x2) ~= 0 and 1 or 0
    row.cf_outbound_connection = band(flags, 0x4) ~= 0 and 1 or 0
    row.cf_rsa_key_imported = band(flags, 0x8) ~= 0 and 1 or 0
    row.cf_qoagent_key_imported = band(flags, 0x10) ~= 0 and 1 or 0
    row.cf_qoagent_key_not_found = band(flags, 0x40) ~= 0 and 1 or 0
    row.cf_qoagent_key_error = band(flags, 0x80) ~= 0 and 1 or 0
    row.cf_qoagent_fail_open = band(flags, 0x200) ~= 0 and 1 or 0
    row.cf_qoagent_throttled = band(flags, 0x400) ~= 0 and 1 or 0
    row.cf_qoagent_banned = band(flags, 0x800) ~= 0 and 1 or 0
    row.cf_do_dpi = band(flags, 0x20) ~= 0 and 1 or 0
    row.flags = flags
end

local function set_field(row, name, value)
    if name == "flags" then
        set_flags(row, value)
    elseif is_number[name] then
        row[name] = integer(value)
    else
        row[name] = value
    end
end

-- Rows in the order of the entries.
function plain_feedback.rows(entries)
    local rows = {}
    for i = 1, #entries do
        local row = {}
        for line in gmatch(entries[i].text, "[^\n]+") do
            local tab = find(line, "\t", 1, true)
            set_field(row, tab and sub(line, 1, tab - 1) or line,
                      tab and sub(line, tab + 1) or "")
        end
        row.count = entries[i].count
        rows[i] = row
    end
    return rows
end

return plain_feedback
