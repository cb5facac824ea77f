-- Makes a string from any source safe for a terminal: control characters, invalid UTF-8 and
-- characters that change the writing direction become \xNN. With a true `multiline`, line
-- feeds and TABs stay.

local function escape(byte)
    return ("\\x%02x"):format(byte:byte())
end

-- The host module has the UTF-8 rules. The message that it cannot be loaded does without them.
return function(bytes, multiline)
    if not bytes:find("[^\32-\126]") then return bytes end
    local loaded, vxa = pcall(require, "vxa")
    if loaded then return vxa.printable(bytes, multiline) end
    return (bytes:gsub("[^\32-\126]", escape))
end
