-- Turns a document into the Markdown of a man page: links become references to pages, rows that
-- refer to another document's become those.

local document = require "document"

local markdown = {}

-- ---- links ------------------------------------------------------------------------------

-- Returns the path of a link's target in the tree.
local function resolve(from, target)
    local path = from:match("^(.*/)[^/]*$") .. target
    local count = 1
    while count > 0 do path, count = path:gsub("[^/]+/%.%./", "", 1) end
    return path
end

-- The text is the page's own name, such as "`vxa run`" or "policy.md".
local function names_page(text, page)
    return text:gsub("`", ""):gsub("^/etc/", ""):gsub(" ", "-") == page.name
        or page.path:match("[^/]*$") == text
end

local function has_section(page, text)
    return (page.text:lower():find("\n## " .. text:lower():gsub("%p", "%%%0") .. "\n"))
end

-- Returns what replaces a link to a section of its own page.
local function own_section(page, text)
    return has_section(page, text) and text:upper() or text
end

-- Returns what replaces a link. A link to a document that is not a page becomes its text.
local function replace_link(page, other, text, is_parenthesis)
    if not other then return text end
    page.related[other] = true
    local reference = ("**%s**(%s)"):format(other.name, other.section)
    if names_page(text, other) then return reference end
    return (is_parenthesis and "%s: %s" or "%s (%s)"):format(text, reference)
end

local function replace_links(page, pages, prose)
    local function replace(before, text, target, after)
        local path = target:match("^[^#]*")
        if path == "" then return own_section(page, text) end
        if target:find("^%a+:") then return nil end
        return replace_link(page, pages[resolve(page.path, path)], text,
            prose:sub(before - 1, before - 1) .. prose:sub(after, after) == "()")
    end
    return (prose:gsub("()%[([^%[%]]+)%]%(([^()%s]+)%)()", replace))
end

-- ---- rows of other documents -------------------------------------------------------------

local function row_text(row)
    return "| " .. table.concat(row, " | ") .. " |"
end

-- "| `--engine NAME`, `--trace CATEGORY` | as for [`vxa run`](run.md#options) |" becomes the rows
-- of these options there.
local AS_FOR = "|([^|\n]+)| as for %[`[^`]+`%]%(([%w._/-]+)#options%) |"
local function expand_options(page, pages, prose)
    return (prose:gsub(AS_FOR, function(cell, target)
        local wanted, rows, seen = {}, {}, {}
        for name in cell:gmatch("%-%-[%w-]+") do wanted[name] = true end
        for _, option in ipairs(document.options(pages[resolve(page.path, target)].text)) do
            if wanted[option.names[#option.names]] and not seen[option.row] then
                seen[option.row] = true
                rows[#rows + 1] = row_text(option.row)
            end
        end
        return table.concat(rows, "\n")
    end))
end

local function with_first(cells, at)
    local ordered = { table.unpack(cells) }
    table.insert(ordered, 1, table.remove(ordered, at))
    return row_text(ordered)
end

local function position(list, wanted)
    for i, item in ipairs(list) do if item == wanted then return i end end
end

-- Returns the tables of a document's settings with the column named in front.
local function settings_by(column, other)
    local lines, headings = {}, nil
    for _, row in ipairs(document.rows(document.section(other.text, "Settings"))) do
        local at = position(row.headings, column)
        if row.headings ~= headings then
            headings = row.headings
            lines[#lines + 1] = "\n" .. with_first(headings, at)
            lines[#lines + 1] = "|" .. ("---|"):rep(#headings)
        end
        lines[#lines + 1] = with_first(row, at)
    end
    return table.concat(lines, "\n")
end

-- "<!-- settings of policy.md by File key -->" becomes these tables. The paragraph after it, which
-- refers to the document, is left out.
local function include_settings(page, pages, prose)
    return (prose .. "\n"):gsub("\n<!%-%- settings of (%S+) by (.-) %-%->\n.-\n\n",
        function(target, column)
            return settings_by(column, pages[resolve(page.path, target)]) .. "\n\n"
        end)
end

-- ---- the whole document ------------------------------------------------------------------

-- Returns the text for lowdown; page.related gets the set of pages that it refers to.
function markdown.of(page, pages)
    page.related = {}
    local text = page.text:gsub("^# [^\n]*\n", "## Description\n", 1)
    text = document.convert_prose(text, function(prose)
        prose = expand_options(page, pages, include_settings(page, pages, prose))
        prose = replace_links(page, pages, prose)
        return (("\n" .. prose):gsub("\n#(#+ )", "\n%1"):sub(2))
    end)
    return text
end

return markdown
