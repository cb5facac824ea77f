-- Compares the manifests of two packages.

local json = require "dkjson"

local pairing = require "vxa.diff.pairing"

-- Members about the making of the package, which differ between any two. The rows of `entries`
-- are compared with the entries.
local own = { start = true, ["end"] = true, profile_s = true, entries = true, events = true,
              failed_calls = true, failed_calls_dropped = true, unknown = true, manifest = true }
local own_of_state = { last_cycle = true, in_use = true }

local DEEPEST = 8
local MOST_ITEMS = 10000

local function add(items, name, value)
    if #items < MOST_ITEMS then
        local text = type(value) == "number" and ("%.14g"):format(value) or tostring(value)
        items[#items + 1] = { key = name, value = text }
    end
end

local flatten

-- Adds the elements by their member `name`, otherwise by position; what is not an object as one
-- item.
local function add_array(items, path, array, depth)
    local words = {}
    for i, element in ipairs(array) do
        if type(element) ~= "table" then
            words[#words + 1] = tostring(element)
        else
            local name = type(element.name) == "string" and element.name or tostring(i)
            flatten(items, path .. "." .. name, element, depth + 1)
        end
    end
    if #words > 0 then add(items, path, table.concat(words, " ")) end
end

-- Adds {key: "host.name", value} for each value below this one.
function flatten(items, path, value, depth)
    if value == json.null or depth > DEEPEST then return end
    if type(value) ~= "table" then return add(items, path, value) end
    if not getmetatable(value) then return add_array(items, path, value, depth) end
    -- The details have counts that always change.
    if type(value.available) == "boolean" then
        return add(items, path, value.available and "available" or "not available")
    end
    local names = {}
    for name in pairs(value) do names[#names + 1] = name end
    table.sort(names)
    for _, name in ipairs(names) do
        local is_own = path == "" and own[name] or path == "state" and own_of_state[name]
        if not is_own then
            flatten(items, path == "" and name or path .. "." .. name, value[name], depth + 1)
        end
    end
end

local function items_of(manifest)
    local items = {}
    flatten(items, "", manifest, 0)
    return items
end

return function(section, older, newer, check)
    pairing.each(items_of(older), items_of(newer), check, function(old, new)
        local row = { kind = "manifest", name = (new or old).key, older = old and old.value,
                      newer = new and new.value }
        if not old then return section:add("appeared", row) end
        if not new then return section:add("vanished", row) end
        if old.value ~= new.value then section:add("changed", row) end
    end)
end
