-- Standard output and standard error, in whole lines.

local exit = require "vxa.exit"
local printable = require "vxa.output.printable"

local EINTR, EPIPE = 4, 32  -- errno values on Linux

local console = {}

-- Flushes at once, so that the reader of a pipe sees each cycle as it happens. On EPIPE, ends
-- the command quietly.
function console.write(text)
    local done, message, code = io.stdout:write(text)
    if done then done, message, code = io.stdout:flush() end
    if done then return end
    if code == EPIPE then exit.quietly() end
    if code == EINTR then exit.if_interrupted(require "vxa") end
    exit.fail(1, "cannot write to standard output: %s", message)
end

function console.line(format, ...)
    console.write(select("#", ...) == 0 and format .. "\n" or format:format(...) .. "\n")
end

function console.lines(lines)
    for _, line in ipairs(lines) do console.line("%s", line) end
end

-- Prints a message on standard error as one line that is safe for a terminal.
function console.complain(message)
    io.stderr:write("vxa: ", printable((message:gsub("%s*\n%s*", " "))), "\n")
end

local plain = { red = "", bold = "", dim = "", off = "" }
local coloured = { red = "\27[31m", bold = "\27[1m", dim = "\27[2m", off = "\27[0m" }

-- Returns escape sequences for a terminal, and empty strings for anything else.
function console.colours(vxa)
    local wanted = vxa.isatty(1) and not os.getenv("NO_COLOR") and os.getenv("TERM") ~= "dumb"
    return wanted and coloured or plain
end

return console
