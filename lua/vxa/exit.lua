-- Ways to end the command early: with an error message, or quietly after a signal.

local exit = {}

-- Ends the command with a message on standard error. Status 2 means that the user can correct
-- the call or the policy, status 1 that the run itself failed.
function exit.fail(status, format, ...)
    error({ status = status, message = format:format(...) }, 0)
end

-- A shell reports a command that was ended by a signal in this way.
local SIGNAL_STATUS_BASE = 128
local signal_numbers = { SIGHUP = 1, SIGINT = 2, SIGQUIT = 3, SIGTERM = 15 }

function exit.signal_status(signal)
    return SIGNAL_STATUS_BASE + signal_numbers[signal]
end

-- Ends the command without a message.
function exit.after_signal(signal)
    error({ status = exit.signal_status(signal) }, 0)
end

-- Ends the command without a message and with status 0: the reader of its output has gone.
function exit.quietly()
    error({ status = 0 }, 0)
end

function exit.is_quiet(err)
    return type(err) == "table" and err.status == 0
end

-- Ends the command if a signal has arrived.
function exit.if_interrupted(vxa)
    local signal = vxa.interrupted()
    if signal then exit.after_signal(signal) end
end

-- Whether an error is the interpreter's own response to SIGINT, as raised until the host module
-- catches signals.
function exit.is_interrupt(err)
    return type(err) == "string" and err:find("interrupted!", 1, true) ~= nil
end

return exit
