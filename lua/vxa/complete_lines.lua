-- Returns an iterator over the lines of a text, and where the next one begins, without a last line
-- that has no end. gmatch alone would search for its end from each of its bytes.

return function(text)
    return (text:match("^.*\n") or ""):gmatch("([^\n]*)\n()")
end
