---@meta strict_json
-- The module strict_json for editors: a JSON parser for files written by hand.

---@class strict_json
local strict_json = {}

---@class strict_json.Member
---@field key string
---@field value strict_json.Value
---@field at integer position in the text

---@class strict_json.Value
---@field type "number"|"string"|"object"|"array"|"true"|"false"|"null"
---@field at integer position in the text
---@field value? number|string of a number or string
---@field members? strict_json.Member[] of an object, in their order, repeated ones included

---Parses a text of exactly one JSON value.
---@param text string
---@param tolerate? fun(at: integer, message: string) called at what cJSON accepts beyond RFC 8259
---@return strict_json.Value? value nil if it is not JSON
---@return string? message
---@return integer? line from 1
---@return integer? column from 1, in characters
---@return integer? at position in the text
function strict_json.parse(text, tolerate) end

---Returns the line and column of an offset in a text.
---@param text string
---@param at integer from 1
---@return integer line
---@return integer column
function strict_json.place(text, at) end

---Returns a function that does the same for one offset after the other.
---@param text string
---@return fun(at: integer): integer, integer place
function strict_json.places(text) end

return strict_json
