-- Observations for the benchmarks of connection feedback. `advance` comes from Clock.cpp, `filter`
-- is the table of the module's functions.

local plain_feedback = require "plain_feedback"

local observations = {}

-- Keys of 55 bytes.
function observations.keys(from, to)
    local list = {}
    for i = from, to do
        list[#list + 1] = ("6:10.%03d.%03d.%03d:%05d>192.168.100.200:00443/ssh:%06d"):format(
            i % 7, i % 201, i % 251, i, i)
    end
    assert(#list[1] == 55)
    return list
end

-- 178 bytes.
local function short_text(i)
    local text = ("flags\t261\npid\t%d\ndst_port\t443\ntls_version\t771\ncipher\t49199\n"
        .. "sni\twww.example.org\nprocess\tnginx\n"):format(1000 + i)
    return text .. "path\t" .. ("p"):rep(178 - #text - 5)
end

-- 12 lines.
local function long_text(i)
    return ("flags\t%d\npid\t%d\ndst_port\t443\ntls_version\t771\ncipher\t49199\n"
        .. "container_type\t2\nsni\thost%d.example.org\nprocess\tnginx: worker process\n"
        .. "path\t/usr/sbin/nginx\nsrc_ip\t10.0.%d.%d\ndst_ip\t192.168.100.200\nuser\twww-data"):format(
        i % 4096, 1000 + i, i, i % 250, i % 199)
end

observations.all_keys = observations.keys(1, plain_feedback.MAX_KEYS)
observations.short_texts, observations.long_texts = {}, {}
for i = 1, plain_feedback.MAX_KEYS do
    observations.short_texts[i], observations.long_texts[i] = short_text(i), long_text(i)
end

function observations.feed(add, keys, texts)
    for i = 1, #keys do add(keys[i], texts[i], 1) end
end

function observations.publish()
    advance()
    filter.UpdateConnMetrics()
end

function observations.empty_stores()
    observations.publish()
    filter.GetConnMetrics()
    plain_feedback.clear()
end

return observations
