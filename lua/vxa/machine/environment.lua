-- Removes from the environment what would change the results of the commands that the module
-- runs (nproc and uptime), for this process and its children.

local environment = {}

local STANDARD_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

-- nproc prints OMP_NUM_THREADS instead of the number of processors, and at most
-- OMP_THREAD_LIMIT. In a locale with a decimal comma uptime prints "0,52", which the module
-- does not read as a number.
local unwanted = { "OMP_NUM_THREADS", "OMP_THREAD_LIMIT", "LC_NUMERIC", "LC_TIME", "LANGUAGE",
                   "POSIXLY_CORRECT" }

function environment.scrub(vxa)
    for _, name in ipairs(unwanted) do vxa.setenv(name, nil) end
    vxa.setenv("LC_ALL", "C.UTF-8")
    -- Root must not run commands from a directory of the caller's choice.
    if vxa.euid() == 0 or (os.getenv("PATH") or "") == "" then
        vxa.setenv("PATH", STANDARD_PATH)
    end
    -- UTF-8 so that names and keys outside ASCII survive, with the point as decimal mark.
    os.setlocale("C.UTF-8")
    os.setlocale("C", "numeric")
end

return environment
