-- Tables of cases under plain Lua: each is run on its own, and all failures are told.

local cases = { failed = 0, run = 0 }

local function show(value)
    if type(value) ~= "table" then return ("%q"):format(tostring(value)) end
    local parts, keys = {}, {}
    for key in pairs(value) do keys[#keys + 1] = key end
    table.sort(keys, function(a, b) return tostring(a) < tostring(b) end)
    for i, key in ipairs(keys) do parts[i] = tostring(key) .. "=" .. show(value[key]) end
    return "{" .. table.concat(parts, ", ") .. "}"
end

function cases.equal(actual, expected, what)
    if show(actual) ~= show(expected) then
        error(("%s is %s, not %s"):format(what, show(actual), show(expected)), 2)
    end
end

function cases.matches(actual, pattern, what)
    if not actual:find(pattern) then
        error(("%s lacks %q; it is:\n%s"):format(what, pattern, actual), 2)
    end
end

function cases.case(name, body, ...)
    cases.run = cases.run + 1
    local ok, message = pcall(body, ...)
    if ok then return end
    cases.failed = cases.failed + 1
    io.stderr:write("FAILED ", name, ": ", tostring(message), "\n")
end

function cases.finish()
    io.write(("%d cases, %d failed\n"):format(cases.run, cases.failed))
    os.exit(cases.run > 0 and cases.failed == 0, true)
end

return cases
