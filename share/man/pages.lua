-- Which documents are man pages.

local document = require "document"

-- A document begins with such a comment if it is a man page. Commands take the description from the
-- list of commands.
local DECLARATION = "^<!%-%- ([%w._-]+)%((%w+)%): ([^\n]-) %-%->\n"

local function files_below(root)
    local pipe = io.popen(("cd '%s' && LC_ALL=C ls docs/*.md docs/commands/*.md "
        .. "host/driver/engines/*/README.md"):format(root:gsub("'", "'\\''")))
    local paths = {}
    for path in pipe:lines() do paths[#paths + 1] = path end
    assert(pipe:close())
    return paths
end

-- Returns the descriptions of the commands by their names.
local function command_descriptions(overview)
    local descriptions = {}
    for _, row in ipairs(document.rows(document.section(overview, "Commands"))) do
        descriptions[row[1]:match("%[`vxa ([%w-]+)`%]")] = row[2]
    end
    return descriptions
end

-- Returns an array of pages { path, name, section, description, command, text }, `command` is that
-- of a page about one. The array also has them by their path.
return function(root)
    local pages = {}
    local descriptions = command_descriptions(document.read(root .. "/docs/command.md"))
    for _, path in ipairs(files_below(root)) do
        local text = document.read(root .. "/" .. path)
        local name, section, description = text:match(DECLARATION)
        local command = path:match("^docs/commands/(.*)%.md$")
        if command then
            name, section = "vxa-" .. command, "1"
            description = descriptions[command]
                or error(path .. ": docs/command.md does not list the command", 0)
        end
        if name then
            local page = { path = path, name = name, section = section, command = command,
                           description = description, text = text:gsub(DECLARATION, "") }
            pages[#pages + 1], pages[path] = page, page
        end
    end
    return pages
end
