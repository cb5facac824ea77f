-- Rules of luacheck for all Lua of this tree.
std = "lua52"
max_line_length = 100
-- Made by the modules fc and vxa; a test puts its own in their place.
globals = { "SLB" }
-- They only declare.
files["share/stubs"] = { ignore = { "212", "241" } }
