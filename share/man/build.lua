-- Writes the man pages: build.lua ROOT FOLDER SOURCE DATE, where SOURCE is the name and version
-- for the footer. Needs lowdown.

local root, folder, source, date = table.unpack(arg)
package.path = ("%s/share/man/?.lua;%s/lua/?.lua;%s"):format(root, root, package.path)

local commands = require "commands"
local markdown = require "markdown"
local roff = require "roff"

local VOLUMES = { ["1"] = "User Commands", ["3lua"] = "Lua Modules", ["5"] = "File Formats",
                  ["7"] = "Miscellaneous" }

local LOWDOWN = "lowdown -tman --parse-no-super --parse-no-intraemph "
    .. "--out-no-smarty --nroff-nolinks "

local function quoted(text)
    return "'" .. text:gsub("'", "'\\''") .. "'"
end

local function convert(page, text)
    local path = ("%s/%s.md"):format(folder, page.name)
    local file = assert(io.open(path, "w"))
    assert(file:write(text))
    assert(file:close())
    local pipe = io.popen(LOWDOWN .. quoted(path))
    local output = pipe:read("*a")
    assert(pipe:close(), "lowdown failed")
    os.remove(path)
    return roff.finish(output, page.path)
end

-- ---- sections that documents do not have -------------------------------------------------

local function title(page)
    return ('.TH "%s" "%s" "%s" "%s" "%s"\n.ad l\n.SH NAME\n%s \\- %s\n'):format(page.name:upper(),
        page.section, date, source, VOLUMES[page.section], roff.verbatim(page.name),
        roff.verbatim(page.description))
end

local function option_synopsis(option)
    local name = roff.verbatim(option.names[1]:gsub("^%-%-?", "", 1))
    local dash = option.names[1]:find("^%-%-") and "\\-" or ""
    if option.required then
        return ("\\fB\\-%s%s\\fR\\ \\fI%s\\fR"):format(dash, name, option.value)
    end
    return (".OP \\-%s%s %s"):format(dash, name, option.value or "")
        .. (option.repeated and "\n\\&..." or "")
end

local function argument_synopsis(argument)
    return (argument.optional and "[\\fI%s\\fR]" or "\\fI%s\\fR"):format(argument.name)
end

local function synopsis(command)
    local required, lines = {}, {}
    for _, option in ipairs(command.options) do
        if option.names[1] ~= "-h" then
            table.insert(option.required and required or lines, option_synopsis(option))
        end
    end
    for i, line in ipairs(required) do table.insert(lines, i, line) end
    for _, argument in ipairs(command.arguments) do
        lines[#lines + 1] = argument_synopsis(argument)
    end
    return (".SH SYNOPSIS\n.SY vxa\\ %s\n%s\n.YS\n"):format(command.name,
        table.concat(lines, "\n"))
end

local MAIN_SYNOPSIS = [[
.SH SYNOPSIS
.SY vxa
\fICOMMAND\fR
.RI [ ARGUMENT ...]
.YS
.SY vxa
.BR help
.RI [ COMMAND ]
.YS
.SY vxa
.B \-\-version
.YS
]]

local function see_also(page, pages)
    local others = {}
    for other in pairs(page.related) do others[#others + 1] = other end
    local overview = pages["docs/command.md"]
    if page.name:find("^vxa%-") and not page.related[overview] then
        others[#others + 1] = overview
    end
    table.sort(others, function(a, b)
        if a.section ~= b.section then return a.section < b.section end
        return a.name < b.name
    end)
    for i, other in ipairs(others) do
        others[i] = (".BR %s (%s)"):format(roff.verbatim(other.name), other.section)
    end
    return others[1] and ".SH SEE ALSO\n" .. table.concat(others, ",\n") .. "\n" or ""
end

-- ---- pages ------------------------------------------------------------------------------

local by_name = {}
for _, command in ipairs(commands()) do by_name[command.name] = command end

local function write(page, pages)
    local body = convert(page, markdown.of(page, pages))
    local usage = page.command and synopsis(by_name[page.command])
        or page.path == "docs/command.md" and MAIN_SYNOPSIS or ""
    local text = title(page) .. usage .. body .. see_also(page, pages)
    local preprocessor = text:find("\n.TS\n", 1, true) and "'\\\" t\n" or ""
    local section = folder .. "/man" .. page.section:sub(1, 1)
    assert(os.execute("mkdir -p " .. quoted(section)))
    local file = assert(io.open(("%s/%s.%s"):format(section, page.name, page.section), "w"))
    assert(file:write(preprocessor, text))
    assert(file:close())
end

local pages = require "pages"(root)
for _, page in ipairs(pages) do write(page, pages) end
