-- Removes from the environment what would change the results of the commands that the module
-- runs (nproc and uptime), for this process and its children.

local environment = {}

local STANDARD_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

-- nproc prints OMP_NUM_THREADS instead of the number of processors, and at most
-- OMP_THREAD_LIMIT.
environment.NPROC_VARIABLES = { "OMP_NUM_THREADS", "OMP_THREAD_LIMIT" }

-- In a locale with a decimal comma uptime prints "0,52", which the module does not read as a
-- number.
local FORMAT_VARIABLES = { "LC_NUMERIC", "LC_TIME", "LANGUAGE", "POSIXLY_CORRECT" }

function environment.scrub(vxa)
    for _, names in ipairs { environment.NPROC_VARIABLES, FORMAT_VARIABLES } do
        for _, name in ipairs(names) do vxa.setenv(name, nil) end
    end
    vxa.setenv("LC_ALL", "C.UTF-8")
    -- Root must not run commands from a directory of the caller's choice. For others, the module
    -- finds its commands also if PATH lacks them.
    local path = os.getenv("PATH") or ""
    local is_used = vxa.euid() ~= 0 and path ~= ""
    vxa.setenv("PATH", is_used and path .. ":" .. STANDARD_PATH or STANDARD_PATH)
    -- UTF-8 so that names and keys outside ASCII survive, with the point as decimal mark.
    os.setlocale("C.UTF-8")
    os.setlocale("C", "numeric")
end

-- The commands that the module runs through a shell, and Debian's packages that have them.
local NEEDED = { { "nproc", "coreutils" }, { "uptime", "procps" } }

-- Whether a directory of this PATH has the command.
function environment.has_command(vxa, path, command)
    for directory in path:gmatch("[^:]+") do
        local kind = vxa.file_kind(directory .. "/" .. command)
        if kind == "file" or kind == "link" then return true end
    end
    return false
end

-- Returns an array of messages about commands that are missing.
function environment.missing_commands(vxa)
    local messages = {}
    for _, row in ipairs(NEEDED) do
        if not environment.has_command(vxa, os.getenv("PATH"), row[1]) then
            messages[#messages + 1] = ("%s is not in PATH: the load cannot be sampled; install "
                .. "the package %s"):format(row[1], row[2])
        end
    end
    return messages
end

return environment
