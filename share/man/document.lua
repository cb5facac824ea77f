-- Reads documents: their prose, sections and tables.

local document = {}

function document.read(path)
    local file = assert(io.open(path))
    local text = file:read("*a")
    file:close()
    return text
end

-- Returns the text with each stretch that is not a fenced block converted.
function document.convert_prose(text, convert)
    local parts, at = {}, 1
    text = "\n" .. text
    while true do
        local first, last = text:find("\n```.-\n```[^\n]*", at)
        parts[#parts + 1] = convert(text:sub(at, (first or 0) - 1))
        if not first then break end
        parts[#parts + 1] = text:sub(first, last)
        at = last + 1
    end
    return (table.concat(parts):sub(2))
end

-- Returns the section with this heading, without the heading, or nil.
function document.section(text, heading)
    local _, last = text:find("\n## " .. heading .. "\n", 1, true)
    return last and text:sub(last, (text:find("\n## ", last, true) or 0) - 1)
end

local function cells_of(line)
    local cells = {}
    for cell in line:match("^|(.*)|%s*$"):gsub("\\|", "\0"):gmatch("[^|]+") do
        cells[#cells + 1] = cell:match("^%s*(.-)%s*$"):gsub("%z", "\\|")
    end
    return cells
end

-- Returns the rows of all tables in the text; a row has its table's `headings`.
function document.rows(text)
    local rows, headings = {}, nil
    for line in (text .. "\n"):gmatch("([^\n]*)\n") do
        if line:sub(1, 1) ~= "|" then
            headings = nil
        elseif not headings then
            headings = cells_of(line)
        elseif not line:find("^|%-") then
            local row = cells_of(line)
            row.headings = headings
            rows[#rows + 1] = row
        end
    end
    return rows
end

-- Returns the options that a document lists, in order: { names, value, row }. The first cell of
-- their rows is such as "`-o`, `--output FILE`"; a short name belongs to the name after it.
function document.options(text)
    local options, names = {}, {}
    for _, row in ipairs(document.rows(document.section(text, "Options") or "")) do
        for name, value in row[1]:gmatch("`(%-[%w-]+) ?([^`]*)`") do
            names[#names + 1] = name
            if name:find("^%-%-") then
                options[#options + 1] = { names = names, value = value ~= "" and value or nil,
                                          row = row }
                names = {}
            end
        end
    end
    return options
end

return document
