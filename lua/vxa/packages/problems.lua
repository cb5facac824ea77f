-- What is wrong with the driver's entries of a diagnostic package, and why.
--
-- The module adds all entries in one call that does not return failures. The archive knows how
-- long each entry took, the driver handle which calls failed and why.

local package_entries = require "vxa.packages.entries"

local problems = {}

-- Returns descriptions of the failures of a driver call, each once.
local function describe_failures(failures, call)
    local descriptions, times = {}, {}
    for _, failure in ipairs(failures) do
        if failure.call == call then
            local description = ("%s failed with %d: %s")
                :format(call, failure.status, failure.message)
            if not times[description] then descriptions[#descriptions + 1] = description end
            times[description] = (times[description] or 0) + 1
        end
    end
    for i, description in ipairs(descriptions) do
        local count = times[description]
        if count > 1 then descriptions[i] = ("%s (%d times)"):format(description, count) end
    end
    return descriptions
end

local function has_failure(failures, call)
    for _, failure in ipairs(failures) do
        if failure.call == call then return true end
    end
    return false
end

-- Returns why an entry is missing or empty although its own call did not fail.
local function other_reason(entry, written, driver)
    local capability = driver.capabilities[entry.capability]
    if driver.open_error then return "cannot open the driver: " .. driver.open_error end
    if not written and has_failure(driver.failures, "vxi_driver_available") then
        return "the driver is not available"
    end
    return capability and not capability.available and capability.detail or entry.otherwise
end

local function judge(entry, written, driver)
    local row = { name = entry.name, written = written, is_of_driver = true,
                  problems = describe_failures(driver.failures, entry.call) }
    local is_empty = not written or written.bytes == 0
    if is_empty and #row.problems == 0 then
        row.problems[1] = other_reason(entry, written, driver)
    end
    row.state = not written and "missing" or is_empty and "empty"
        or #row.problems > 0 and "incomplete" or "ok"
    return row
end

-- Returns a row {name, is_of_driver, state, problems, written} for each entry of the driver.
-- `written` has the archive's entries by name. `driver` has its `capabilities` by name, its failed
-- calls as `failures`, and `open_error` if there is no handle.
function problems.entries(written, driver)
    local rows = {}
    for _, entry in ipairs(package_entries) do
        if entry.call then rows[#rows + 1] = judge(entry, written[entry.name], driver) end
    end
    return rows
end

-- Returns such rows for the failed calls that belong to no entry, such as switching rule profiling
-- off.
function problems.calls(failures)
    local rows, known = {}, { vxi_driver_available = true }
    for _, entry in ipairs(package_entries) do
        if entry.call then known[entry.call] = true end
    end
    for _, failure in ipairs(failures) do
        if failure.status and not known[failure.call] then
            known[failure.call] = true
            rows[#rows + 1] = { name = failure.call, state = "failed",
                                problems = describe_failures(failures, failure.call) }
        end
    end
    return rows
end

return problems
