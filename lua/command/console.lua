-- Standard output and standard error, whole lines at a time.

local interruption = require "command.interruption"
local printable = require "command.printable"

local EINTR, EPIPE = 4, 32

local console = {}

-- Every line is out before the command goes on: a reader behind a pipe sees each cycle
-- when it happens. A reader that went away ends the command without a word.
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

-- Whatever was in the text: one line.
function console.complain(text)
    io.stderr:write("vxa: ", printable((text:gsub("%s*\n%s*", " "))), "\n")
end

local plain = { red = "", bold = "", dim = "", off = "" }
local coloured = { red = "\27[31m", bold = "\27[1m", dim = "\27[2m", off = "\27[0m" }

-- Colours for a terminal; empty texts for everything else.
function console.colours(vxa)
    local wanted = vxa.isatty(1) and not os.getenv("NO_COLOR") and os.getenv("TERM") ~= "dumb"
    return wanted and coloured or plain
end

return console
