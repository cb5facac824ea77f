-- A directory on the fake machine, and the command vxa in it.

local scratch = { path = os.getenv "FAKE_MACHINE" .. "/work/" }
os.execute("mkdir " .. scratch.path)

-- Runs shell commands in the directory; returns their output with errors, and the exit status.
function scratch.shell(commands)
    local pipe = io.popen(("cd %s; { %s\n} 2>&1"):format(scratch.path, commands))
    local text = pipe:read("*a")
    return text, select(3, pipe:close())
end

-- Runs vxa on the simulated engine, with the environment's variables as for env(1). A shell's
-- commands may follow the arguments.
function scratch.vxa(arguments, variables)
    return scratch.shell(("env VXI_ENGINE=sim %s %s/bin/vxa %s"):format(variables or "",
        os.getenv "VXA_ROOT", arguments))
end

return scratch
