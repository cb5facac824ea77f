-- Makes a text fit for a terminal, wherever it came from: control characters, bytes that
-- are no UTF-8, and characters that change the direction of writing become \xNN.

local escapes = {}
for byte = 0, 255 do escapes[string.char(byte)] = ("\\x%02x"):format(byte) end

local function escape(bytes)
    return (bytes:gsub(".", escapes))
end

-- C1 controls; marks, embeddings and isolates of direction, and the deprecated ones that
-- shape what follows; separators of lines; surrogates.
local unsafe = { { 0x80, 0x9F }, { 0x200B, 0x200F }, { 0x2028, 0x202E }, { 0x2066, 0x206F },
                 { 0x61C, 0x61C }, { 0xD800, 0xDFFF }, { 0xFEFF, 0xFEFF }, { 0x110000, math.huge } }

-- By length: the pattern, and the first code point that needs so many bytes. Entries may be
-- large and all of bytes that are none of these, so the first byte alone chooses the form.
local forms = {
    { length = 2, pattern = "^[\194-\223][\128-\191]", first = 0x80 },
    { length = 3, pattern = "^[\224-\239][\128-\191][\128-\191]", first = 0x800 },
    { length = 4, pattern = "^[\240-\244][\128-\191][\128-\191][\128-\191]", first = 0x10000 },
}

local function is_safe(sequence, form)
    local value = sequence:byte() % 2 ^ (7 - form.length)
    for i = 2, form.length do value = value * 64 + sequence:byte(i) % 64 end
    for _, range in ipairs(unsafe) do
        if value >= range[1] and value <= range[2] then return false end
    end
    return value >= form.first
end

-- The character that begins at `at`, if it is one that may be shown.
local function character(bytes, at)
    local lead = bytes:byte(at)
    local form = forms[lead < 224 and 1 or lead < 240 and 2 or 3]
    local sequence = bytes:sub(at, at + form.length - 1)
    return sequence:find(form.pattern) and is_safe(sequence, form) and sequence
end

local function clean(bytes)
    local parts, at = {}, 1
    while at <= #bytes do
        local _, strays_end = bytes:find("^[\128-\193\245-\255]+", at)
        local shown = not strays_end and character(bytes, at)
        local last = shown and at + #shown - 1 or strays_end or at
        parts[#parts + 1] = shown or escape(bytes:sub(at, last))
        at = last + 1
    end
    return table.concat(parts)
end

-- Line feeds and TABs stay where `multiline` is true.
return function(text, multiline)
    text = text:gsub(multiline and "[%z\1-\8\11-\31\127]" or "[%z\1-\31\127]", escapes)
    return (text:gsub("[\128-\255]+", clean))
end
