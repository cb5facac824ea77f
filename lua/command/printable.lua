-- Makes a string safe for a terminal, wherever it came from: control characters, bytes that
-- are not UTF-8, and characters that change the direction of writing become \xNN. Line feeds
-- and TABs stay where `multiline` is true.

local function escape(byte)
    return ("\\x%02x"):format(byte:byte())
end

-- The host module knows UTF-8. The one message that must do without it is why the module
-- cannot be loaded.
return function(bytes, multiline)
    if not bytes:find("[^\32-\126]") then return bytes end
    local loaded, vxa = pcall(require, "vxa")
    if loaded then return vxa.printable(bytes, multiline) end
    return (bytes:gsub("[^\32-\126]", escape))
end
