-- Finishes what lowdown makes of a document: fonts, tables and examples as readers of man pages and
-- the formatters groff and mandoc expect them.

local roff = {}

-- A page has 80 columns, less the indent and the margin.
local TEXT_WIDTH, TERMINAL_WIDTH, INDENT = 71, 80, 7

-- ---- characters -------------------------------------------------------------------------

-- Formatters show these as typographic characters unless they are escaped; code is copied from
-- pages.
local VERBATIM = { ["-"] = "\\-", ["'"] = "\\(aq", ["`"] = "\\(ga", ["^"] = "\\(ha",
                   ["~"] = "\\(ti" }

local function verbatim(text)
    return (text:gsub("[-'`^~]", VERBATIM))
end

-- Returns a line as it is shown, but for characters with a name.
local function shown(text)
    return (text:gsub("\\f%(..", ""):gsub("\\f.", ""):gsub("\\%(dq", '"'):gsub("\\%(..", "?")
        :gsub("\\[&%%]", ""):gsub("\\(.)", "%1"))
end

-- Returns the number of columns that a line takes.
local function width(text)
    local line = shown(text)
    local _, continuations = line:gsub("[\128-\191]", "")
    return #line - continuations
end

local function longest_word(text)
    local longest = 0
    for word in text:gmatch("%S+") do longest = math.max(longest, width(word)) end
    return longest
end

-- The sequence that keeps the word after it from being hyphenated; within a word it would allow it.
local UNBROKEN = "\\%"

local function bold(space, opening, text)
    local start = space ~= "" and UNBROKEN or ""
    return space .. start .. opening .. "\\fB"
        .. verbatim(text):gsub("%s%f[%a]", "%0" .. UNBROKEN:gsub("%%", "%%%%")) .. "\\fR"
end

-- Code is bold, as typed words are on man pages, and so are the names of pages in references.
local function finish_prose(text)
    text = (" " .. text):gsub("(%s?)([(\"]*)\\fC(.-)\\fR", bold)
        :gsub("(%s?)([(\"]*)\\fB([%w._-]+)\\fR(%(%d%l*%))", function(space, opening, name, section)
            return bold(space, opening, name) .. section
        end)
    return text:sub(2)
end

-- ---- tables -----------------------------------------------------------------------------

local function parse_table(lines)
    local rows, columns = {}, select(2, lines[2]:gsub("lb", ""))
    for cell in table.concat(lines, "\n"):gmatch("T{\n(.-)\n?T}") do
        local row = rows[#rows]
        if not row or #row == columns then
            row = {}
            rows[#rows + 1] = row
        end
        -- lowdown keeps the backslash of "\|" in code.
        row[#row + 1] = finish_prose((cell:gsub("\\e|", "|")))
    end
    return table.remove(rows, 1), rows, columns
end

local function columns_widths(headings, rows)
    local widths = {}
    for i, heading in ipairs(headings) do
        widths[i] = width(heading)
        for _, row in ipairs(rows) do widths[i] = math.max(widths[i], width(row[i])) end
    end
    return widths
end

-- Returns the widths with the widest column reduced to what a page has room for, or nil if that is
-- too little. Rules and spaces take three columns for each, and one.
local NARROWEST = 24
local function fit(widths, headings, rows)
    local sum, widest = 3 * #widths + 1, 1
    for i, value in ipairs(widths) do
        sum = sum + value
        if value > widths[widest] then widest = i end
    end
    if sum <= TEXT_WIDTH then return widths end
    local room = widths[widest] - (sum - TEXT_WIDTH)
    local needed = longest_word(headings[widest])
    for _, row in ipairs(rows) do needed = math.max(needed, longest_word(row[widest])) end
    if room < math.max(NARROWEST, needed) then return nil end
    widths[widest] = room
    return widths
end

local function boxed(out, headings, rows, widths)
    local formats, titles = {}, {}
    for i, value in ipairs(widths) do
        formats[i], titles[i] = ("lw(%dn)"):format(value), "lb"
    end
    out[#out + 1] = (".TS\ntab(|) allbox;\n%s\n%s."):format(table.concat(titles, " "),
        table.concat(formats, " "))
    out[#out + 1] = table.concat(headings, "|")
    for _, row in ipairs(rows) do
        local cells = {}
        for i, cell in ipairs(row) do cells[i] = cell == "" and "" or "T{\n" .. cell .. "\nT}" end
        out[#out + 1] = table.concat(cells, "|")
    end
    out[#out + 1] = ".TE\n.sp"
end

-- The placeholders of values are in italics: "--output FILE".
local function finish_term(term, is_options)
    if not is_options then return term end
    return (term:gsub("\\fB(\\%-[%w\\-]+) ([^\\]+[^ ]-)\\fR", "\\fB%1\\fR \\fI%2\\fR"))
end

local function body_of(headings, row)
    if #row == 2 then return row[2] end
    local lines = {}
    for i = 2, #row do
        if headings[i] == "Meaning" then
            table.insert(lines, 1, row[i])
        elseif row[i] ~= "" then
            lines[#lines + 1] = ("%s: %s"):format(headings[i], row[i])
        end
    end
    return table.concat(lines, "\n.br\n")
end

-- A list with the first column as terms. Formatters do not break the line of a term.
local function listed(out, headings, rows, is_options)
    local widest = columns_widths(headings, rows)[1]
    local indent = widest <= 10 and " " .. widest + 2 or ""
    for _, row in ipairs(rows) do
        local term, body = finish_term(row[1], is_options), body_of(headings, row)
        if width(term) <= TEXT_WIDTH then
            out[#out + 1] = (".TP%s\n%s\n%s"):format(indent, term, body)
        else
            out[#out + 1] = (".PP\n%s\n.RS\n%s\n.RE"):format(term, body)
        end
    end
    out[#out + 1] = ".PP"
end

local function finish_table(out, lines, is_options)
    local headings, rows, columns = parse_table(lines)
    local widths = columns > 2 and fit(columns_widths(headings, rows), headings, rows)
    if widths then
        boxed(out, headings, rows, widths)
    else
        listed(out, headings, rows, is_options)
    end
end

-- ---- examples ---------------------------------------------------------------------------

-- An example wider than the text begins further left.
local function finish_example(out, lines, place)
    local widest, widest_line = 0, nil
    for i, line in ipairs(lines) do
        if width(line) > widest then widest, widest_line = width(line), line end
        lines[i] = verbatim(line)
    end
    if widest > TERMINAL_WIDTH then
        error(("%s: the example with the line '%s' is wider than %d columns"):format(
            place.document, shown(widest_line), TERMINAL_WIDTH), 0)
    end
    local is_wide = widest > TERMINAL_WIDTH - INDENT
    if is_wide then out[#out + 1] = (".in %dn"):format(TERMINAL_WIDTH - widest) end
    out[#out + 1] = ".EX\n" .. table.concat(lines, "\n") .. "\n.EE"
    if is_wide then out[#out + 1] = ".in" end
end

-- ---- pages ------------------------------------------------------------------------------

-- Capitals, except in code.
local function finish_heading(text)
    return (finish_prose("\\fR" .. text .. "\\fB"):gsub("\\fR(.-)\\fB", function(plain)
        return "\\fR" .. plain:upper() .. "\\fB"
    end):gsub("^\\fR", ""):gsub("\\fB$", ""))
end

-- Ends of blocks, and what finishes the lines in between.
local BLOCKS = {
    [".EX"] = { last = ".EE", finish = finish_example },
    [".TS"] = { last = ".TE", finish = function(out, lines, place)
        finish_table(out, lines, place.section == "Options")
    end },
    [".SH"] = { finish = function(out, lines, place)
        place.section = lines[1]
        out[#out + 1] = ".SH " .. finish_heading(lines[1])
    end },
    [".SS"] = { finish = function(out, lines)
        out[#out + 1] = ".SS " .. finish_prose(lines[1])
    end },
}

-- Returns the lines of a block, without its ends; the block of a heading is one line.
local function take_block(next_line, last)
    local lines = { next_line() }
    if not last then return lines end
    while lines[#lines] ~= last do lines[#lines + 1] = next_line() end
    lines[#lines] = nil
    return lines
end

local function finish_blocks(text, document)
    local out, prose, place = {}, {}, { document = document }
    local next_line = text:gmatch("([^\n]*)\n")
    local function flush()
        if prose[1] then out[#out + 1] = finish_prose(table.concat(prose, "\n")) end
        prose = {}
    end
    for line in next_line do
        local block = BLOCKS[line]
        if block then
            flush()
            block.finish(out, take_block(next_line, block.last), place)
        else
            prose[#prose + 1] = line
        end
    end
    flush()
    return table.concat(out, "\n")
end

-- Headings, lists and the end of a page begin or end a paragraph anyway.
local function without_empty_paragraphs(text)
    local count
    repeat
        local before
        text, before = text:gsub("\n(%.S[HS] [^\n]*)\n%.[LP]P\n", "\n%1\n")
        text, count = text:gsub("\n%.[LP]P\n(%.[LPTSI][PHS])", "\n%1")
    until before + count == 0
    return (text:gsub("\n%.[LP]P\n$", "\n"))
end

-- Returns lowdown's output finished; `document` is its path, for errors.
function roff.finish(text, document)
    -- Items of lists keep the space between them, which lowdown takes back with negative spaces.
    text = text:gsub("\n%.if n \\\n%.sp %-1v?\n%.if t \\\n%.sp %-0%.25v?", "")
    -- Terminals without UTF-8 would not show it.
    text = text:gsub("…", "...")
    return without_empty_paragraphs("\n" .. finish_blocks(text, document) .. "\n"):sub(2)
end

function roff.verbatim(text)
    return verbatim(text)
end

return roff
