-- The text format of Prometheus, version 0.0.4: what the textfile collector of its node exporter
-- reads.

local format = require "vxa.output.format"

local prometheus = {}

local function number(value)
    if value ~= value then return "NaN" end
    if value == math.huge then return "+Inf" end
    if value == -math.huge then return "-Inf" end
    return format.exact(value)
end

local ESCAPES = { ["\\"] = "\\\\", ["\n"] = "\\n", ['"'] = '\\"' }

-- Returns the labels in braces; "" if there are none.
local function labels_text(labels)
    local parts = {}
    for i, label in ipairs(labels or {}) do
        parts[i] = ('%s="%s"'):format(label[1], (tostring(label[2]):gsub('[\\\n"]', ESCAPES)))
    end
    return #parts > 0 and "{" .. table.concat(parts, ",") .. "}" or ""
end

local function heading(family)
    return ("# HELP %s %s\n# TYPE %s %s\n"):format(family.name,
        (family.help:gsub("[\\\n]", ESCAPES)), family.name, family.type)
end

-- Returns the lines of the samples that have a value.
local function sample_lines(family)
    local lines = {}
    for _, sample in ipairs(family.samples) do
        if sample.value then
            lines[#lines + 1] = ("%s%s%s %s\n"):format(family.name, sample.suffix or "",
                labels_text(sample.labels), number(sample.value))
        end
    end
    return table.concat(lines)
end

-- Returns the text of an array of families:
--
-- name, type, help  as in the format; `type` is "gauge", "counter" or "summary"
-- samples           an array of {value, labels, suffix}: `labels` is an array of {name, value} or
--                   nil, `suffix` what the name of a summary's series ends with
--
-- Leaves out samples without a value, and families without such samples.
function prometheus.text(families)
    local parts = {}
    for _, family in ipairs(families) do
        local lines = sample_lines(family)
        if lines ~= "" then parts[#parts + 1] = heading(family) .. lines end
    end
    return table.concat(parts)
end

return prometheus
