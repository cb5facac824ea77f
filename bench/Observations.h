// Observations for the connection benchmarks, and the same work in plain Lua, written the
// way one would who wants it fast.
#pragma once

// keys(from, to) makes keys of 55 bytes, all_keys are the first 10000; short_texts, texts of 178
// bytes, one a key; long_texts, of 12 lines. advance(), time(2) 61 seconds on, comes from the
// program.
constexpr const char* kObservations = R"lua(
    local format = string.format

    function keys(from, to)
        local list = {}
        for i = from, to do
            list[#list + 1] = format("6:10.%03d.%03d.%03d:%05d>192.168.100.200:00443/ssh:%06d",
                i % 7, i % 201, i % 251, i, i)
        end
        assert(#list[1] == 55)
        return list
    end

    function short_text(i)
        local text = format("flags\t261\npid\t%d\ndst_port\t443\ntls_version\t771\ncipher\t49199\n"
            .. "sni\twww.example.org\nprocess\tnginx\n", 1000 + i)
        return text .. "path\t" .. ("p"):rep(178 - #text - 5)
    end

    function long_text(i)
        return format("flags\t%d\npid\t%d\ndst_port\t443\ntls_version\t771\ncipher\t49199\n"
            .. "container_type\t2\nsni\thost%d.example.org\nprocess\tnginx: worker process\n"
            .. "path\t/usr/sbin/nginx\nsrc_ip\t10.0.%d.%d\ndst_ip\t192.168.100.200\nuser\twww-data",
            i % 4096, 1000 + i, i, i % 250, i % 199)
    end

    -- ---- the same in plain Lua ---------------------------------------------------------

    local most_keys = 10000
    local store, stored = {}, 0

    function plain_add(key, text, count)
        if count == 0 then return end
        local entry = store[key]
        if entry then
            entry.count = entry.count + count
        elseif stored < most_keys then
            stored = stored + 1
            store[key] = {text = text, count = count}
        end
    end

    function plain_clear() store, stored = {}, 0 end

    local band, tonumber = bit32.band, tonumber
    local find, gmatch, match, sub = string.find, string.gmatch, string.match, string.sub
    local is_number = {pid = true, dst_port = true, tls_version = true, cipher = true,
                       container_type = true}

    -- As strtol reads it: "12abc" is 12, "abc" is 0.
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

    -- Entries in the order of their keys, as the module keeps them.
    function plain_rows(entries)
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

    -- ---- stores filled ---------------------------------------------------------------------

    function publish()
        advance()
        filter.UpdateConnMetrics()
    end

    function empty_stores()
        publish()
        filter.GetConnMetrics()
        plain_clear()
    end

    function feed(add, list, texts)
        for i = 1, #list do add(list[i], texts[i], 1) end
    end

    all_keys = keys(1, most_keys)
    short_texts, long_texts = {}, {}
    for i = 1, most_keys do short_texts[i], long_texts[i] = short_text(i), long_text(i) end
)lua";
