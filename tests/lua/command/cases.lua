-- Named cases on top of the shared checks: a case that raises fails and the others still
-- run; what fails is told with the case's name.

local testing = require "testing"

local cases = { finish = testing.finish }

local current

function cases.case(name, body)
    current = name
    local ok, message = pcall(body)
    testing.equal(ok and "no error" or message, "no error", name)
end

function cases.equal(actual, expected, what)
    testing.equal(actual, expected, current .. ": " .. what)
end

-- The whole text is shown when the pattern is not in it.
function cases.matches(actual, pattern, what)
    if actual:find(pattern) then actual = pattern end
    testing.equal(actual, pattern, current and current .. ": " .. what or what)
end

return cases
