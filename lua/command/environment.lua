-- What a user's environment could do to the figures, taken out of it for this process
-- and for the commands that the module runs (nproc and uptime).

local environment = {}

local STANDARD_PATH = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"

-- nproc answers with OMP_NUM_THREADS in place of the processors, and at most
-- OMP_THREAD_LIMIT. uptime writes "0,52" under a locale with a decimal comma, which
-- nothing here would read as a number.
local unwanted = { "OMP_NUM_THREADS", "OMP_THREAD_LIMIT", "LC_NUMERIC", "LC_TIME", "LANGUAGE",
                   "POSIXLY_CORRECT" }

function environment.scrub(vxa)
    for _, name in ipairs(unwanted) do vxa.setenv(name, nil) end
    vxa.setenv("LC_ALL", "C.UTF-8")
    -- Root must not run what is in a folder of the caller's choice.
    if vxa.euid() == 0 or (os.getenv("PATH") or "") == "" then
        vxa.setenv("PATH", STANDARD_PATH)
    end
    -- UTF-8, so that names and keys outside ASCII survive; the point as decimal mark.
    os.setlocale("C.UTF-8")
    os.setlocale("C", "numeric")
end

return environment
