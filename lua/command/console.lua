-- Standard output and standard error, whole lines at a time.

local interruption = require "command.interruption"
local printable = require "command.printable"

local EINTR, EPIPE = 4, 32

local console = {}

-- Flushes every line, so that a reader of a pipe sees each cycle when it happens. On EPIPE,
-- exits quietly.
function console.write(text)
    local done, message, code = io.stdout:write(text)
    if done then done, message, code = io.stdout:flush() end
    if done then return end
    if code == EPIPE then error({ status = 0 }, 0) end
    if code == EINTR then interruption.check(require "vxa") end
    error({ status = 1, message = "cannot write to standard output: " .. message }, 0)
end

function console.line(format, ...)
    console.write(select("#", ...) == 0 and format .. "\n" or format:format(...) .. "\n")
end

-- Prints one line, whatever is in the message.
function console.complain(text)
    io.stderr:write("vxa: ", printable((text:gsub("%s*\n%s*", " "))), "\n")
end

local plain = { red = "", bold = "", dim = "", off = "" }
local coloured = { red = "\27[31m", bold = "\27[1m", dim = "\27[2m", off = "\27[0m" }

-- Colours for a terminal; empty strings for everything else.
function console.colours(vxa)
    local wanted = vxa.isatty(1) and not os.getenv("NO_COLOR") and os.getenv("TERM") ~= "dumb"
    return wanted and coloured or plain
end

return console
