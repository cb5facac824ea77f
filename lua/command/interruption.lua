-- The quiet end of a command that a signal cut short.

local interruption = {}

local SHELL_BASE = 128  -- a shell's exit status for a command that a signal ended
local numbers = { SIGHUP = 1, SIGINT = 2, SIGQUIT = 3, SIGTERM = 15 }

function interruption.finish(signal)
    error({ status = SHELL_BASE + numbers[signal] }, 0)
end

-- Ends the command if a signal has come.
function interruption.check(vxa)
    local signal = vxa.interrupted()
    if signal then interruption.finish(signal) end
end

-- Until the host module catches signals, the interpreter turns SIGINT into this error.
function interruption.is_cause(fault)
    return type(fault) == "string" and fault:find("interrupted!", 1, true) ~= nil
end

return interruption
