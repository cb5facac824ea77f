-- A file that a command makes as a whole: it gets its name when it is complete.

local exit = require "vxa.exit"

local new_file = {}

local not_replaced = { directory = "a directory", link = "a symbolic link",
                       other = "not a regular file" }

-- Fails unless the file may be written. Only a regular file may be replaced: renaming over a device
-- would remove it for everyone. `source`: a file that is read to make it, which is not replaced.
function new_file.check(vxa, path, force, source)
    if source and vxa.same_file(path, source) then
        exit.fail(2, "%s is the file that is read and is not replaced", path)
    end
    local kind, message = vxa.file_kind(path)
    if not kind then exit.fail(1, "cannot write %s", message) end
    if kind == "none" then return end
    if kind ~= "file" then
        exit.fail(2, "%s is %s and is not replaced", path, not_replaced[kind])
    end
    if not force then exit.fail(2, "%s already exists; use --force to replace it", path) end
end

-- Calls `build` with a file from vxa.temporary and publishes it if that returns a true value, which
-- is then returned. On any error (`build` raises one or returns nil and a message, or a signal
-- arrives) nothing is left behind. `what` is the noun for the message about a signal. `build` must
-- not write to the standard streams: on EPIPE the command ends at once.
function new_file.write(vxa, path, force, what, build)
    local file, message = vxa.temporary(path)
    if not file then exit.fail(1, "%s", message) end
    local ok, result, reason = pcall(build, file)
    if ok and vxa.interrupted() then
        result, reason = nil, ("interrupted by %s: no %s was written")
            :format(vxa.interrupted(), what)
    end
    if ok and result then
        local published
        published, reason = file:publish(force)
        if published then return result end
    end
    file:close()
    if not ok then error(result, 0) end
    exit.fail(1, "%s", reason)
end

return new_file
