-- The documents, the command's parser and the man pages have the same commands, options and
-- settings; pages are shown without faults.

local root, pages_folder = table.unpack(arg)
package.path = ("%s/share/man/?.lua;%s/lua/?.lua;%s/tests/support/?.lua;%s"):format(root, root,
    root, package.path)

local commands = require "commands"
local document = require "document"
local health_policy = require "health_policy"
local markdown = require "markdown"
local testing = require "testing"

local pages = require "pages"(root)
local commands_of_parser = commands()

-- ---- commands and options -----------------------------------------------------------------

local function options_of_parser(command)
    local found = {}
    for _, option in ipairs(command.options) do
        local names = table.concat(option.names, " ")
        if command.name == "vxa" or names ~= "-h --help" then
            found[#found + 1] = names .. " " .. (option.value or "")
        end
    end
    table.sort(found)
    return found
end

local function options_of_document(text)
    local found = {}
    for i, option in ipairs(document.options(text)) do
        found[i] = table.concat(option.names, " ") .. " " .. (option.value or "")
    end
    table.sort(found)
    return found
end

local function check_command(command, page)
    testing.equal(options_of_document(page.text), options_of_parser(command), page.path)
    for _, argument in ipairs(command.arguments) do
        testing.matches(page.text, "`[^`]*%f[%w]" .. argument.name:gsub("%p", "%%%0"), page.path)
    end
end

local listed, parsed, described = {}, {}, {}
for i, row in ipairs(document.rows(document.section(pages["docs/command.md"].text, "Commands"))) do
    listed[i] = row[1]:match("`vxa (.-)`")
end
for i, command in ipairs(commands_of_parser) do
    parsed[i] = command.name
    local path = "docs/commands/" .. command.name .. ".md"
    if pages[path] then check_command(command, pages[path]) end
end
for _, page in ipairs(pages) do
    described[page.command or ""] = true
    testing.equal(markdown.of(page, pages):match "%[[^%[%]]*%]%([^)]*%.md[^)]*%)", nil, page.path)
end
for i, name in ipairs(listed) do testing.equal(described[name], true, "page of " .. i) end
testing.equal(listed, parsed, "the list of commands")
check_command(commands_of_parser.main, pages["docs/command.md"])

-- ---- settings ---------------------------------------------------------------------------

local documented, known = {}, {}
for i, row in ipairs(document.rows(document.section(pages["docs/policy.md"].text, "Settings"))) do
    documented[i] = table.concat(row, " ", 1, 3)
end
for i, setting in ipairs(health_policy.settings) do
    known[i] = ("`%s` `%s` %d"):format(setting.key, setting.conf, setting.max)
end
table.sort(documented)
table.sort(known)
testing.equal(documented, known, "settings")

-- ---- pages ------------------------------------------------------------------------------

local function output_of(command, ...)
    local pipe = io.popen(("cd '%s' && " .. command):format(pages_folder, ...) .. " 2>&1")
    local output = pipe:read("*a")
    pipe:close()
    return output
end

if pages_folder then
    testing.equal(output_of "mandoc -Tlint -W warning man*/*", "", "lint")
    for _, page in ipairs(pages) do
        local file = ("man%s/%s.%s"):format(page.section:sub(1, 1), page.name, page.section)
        local shown = output_of(
            "preconv -e UTF-8 %s | groff -ww -t -man -Tutf8 -rLL=78n -P-cbou", file)
        testing.equal(shown:find(" +%- .*\nDESCRIPTION\n") ~= nil, true, file)
        -- Markdown that is left, and warnings.
        for _, fault in ipairs { "%]%(", "```", "%*%*", "<!%-%-", "%-%-%-|", "<standard input>" } do
            testing.equal(shown:match("[^\n]*" .. fault .. "[^\n]*"), nil, file)
        end
        for line in shown:gmatch("[^\n]+") do
            local _, continuations = line:gsub("[\128-\191]", "")
            if #line - continuations > 80 then testing.equal(line, "at most 80 columns", file) end
        end
    end
end

testing.finish()
