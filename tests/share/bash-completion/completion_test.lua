-- The completion for bash offers every command and option of the parser, values, files and the
-- entries of packages, and runs nothing that a package or the command line contains.

local root, completion = os.getenv "VXA_ROOT", os.getenv "COMPLETION"
package.path = root .. "/share/man/?.lua;" .. package.path

local testing = require "testing"
local vxa = require "vxa"

if not io.open("/usr/share/bash-completion/bash_completion") then
    print("completion: Skipped\nDebian's package bash-completion is not installed")
    os.exit(77)
end

local scratch = os.getenv "FAKE_MACHINE" .. "/work/"
-- Without the limit of time, which a busy machine could exceed.
os.execute(([[mkdir -p %sbin %sfolder; cd %s; ln -s %s/bin/vxa bin/vxa; mkfifo fifo.zip
    printf '#!/bin/sh\nshift\nexec "$@"\n' >bin/timeout
    chmod +x bin/timeout; ln bin/timeout bin/own-hook
    touch c:d.zip policy.json record.csv vxa.prom run.svg; truncate -s 1G sparse.zip]])
    :format(scratch, scratch, scratch, root))

-- ---- a package of a stranger ------------------------------------------------------------

local HOSTILE = { "$(touch hit)", "`touch hit`", "a;touch hit", "a b", "*", "esc#[31m", "line#feed",
                  "'quoted", "#x", "-rf" }
local archive = assert(vxa.ZipOutputStream(scratch .. "hostile.zip"))
for _, name in ipairs(HOSTILE) do assert(archive:add(name, "")) end
for _, name in ipairs { "diag.log", "state/a.jsonl", "state/b.jsonl" } do
    assert(archive:add(name, ""))
end
assert(archive:close())
-- The writer refuses control characters.
testing.write(scratch .. "my package.zip", (testing.read(scratch .. "hostile.zip")
    :gsub("esc#", "esc\27"):gsub("line#", "line\n")))

-- ---- lines and what is offered ----------------------------------------------------------

local ALL_ENTRIES = "diag.log|state/a.jsonl|state/b.jsonl"
local ZIPS = "c:d.zip|fifo.zip|folder|hostile.zip|my package.zip|sparse.zip"
local cases = {
    { "vxa ru", "run" }, { "vxa help st", "status" }, { "vxa nothing --js", "" },
    { "vxa run --policy ", "bin|folder|policy.json" }, { "vxa run --policy=pol", "policy.json" },
    { "vxa run --record r", "record.csv" }, { "vxa run --metrics=", "bin|folder|vxa.prom" },
    { "vxa run --state ", "bin|folder" }, { "vxa run --port ", "" },
    { "vxa run --log run", "run.svg" }, { "vxa run --hook own-", "own-hook" },
    { "vxa run --engine ", table.concat(vxa.engines(), "|") }, { "vxa run --engine=s", "sim" },
    { "vxa run --engine sim --trace d", "diagnostics" },
    { "vxa check --format ", "conf|policy" },
    { "vxa plot r", "record.csv" }, { "vxa plot --force -o run", "run.svg" },
    { "vxa plot record.csv ", "" },
    { "vxa show ", "bin|" .. ZIPS }, { "vxa diff hostile.zip f", "fifo.zip|folder" },
    { "vxa show hostile.zip ", ALL_ENTRIES },
    { "vxa show --raw hostile.zip st", "state/a.jsonl|state/b.jsonl" },
    { "vxa show my\\ package.zip ", ALL_ENTRIES }, { "vxa show './hostile.zip' d", "diag.log" },
    { "vxa show c:", "d.zip" }, { "vxa show -- hostile.zip d", "diag.log" }, { "vxa run -- -", "" },
    { "vxa show hostile.zip diag.log ", "" }, { "vxa show fifo.zip ", "" },
    { "vxa show sparse.zip ", "" }, { "vxa show missing.zip ", "" }, { "vxa show folder ", "" },
    { "vxa show $(touch\\ hit) ", "" }, { "vxa show `touch\\ hit`.zip ", "" },
}

local function words_of(list, convert)
    local words = {}
    for _, item in ipairs(list) do
        for _, word in ipairs(convert(item)) do words[#words + 1] = word end
    end
    table.sort(words)
    return table.concat(words, "|")
end

local all = require "commands"()
local function add(line, list, names_of) cases[#cases + 1] = { line, words_of(list, names_of) } end
local function add_options(line, command)
    add(line, command.options, function(option) return option.names end)
end
add("vxa ", { { name = "help" }, table.unpack(all) }, function(item) return { item.name } end)
add_options("vxa -", all.main)
for _, command in ipairs(all) do add_options("vxa " .. command.name .. " -", command) end

-- ---- the run ----------------------------------------------------------------------------

local lines = {}
for i, case in ipairs(cases) do lines[i] = case[1] end
testing.write(scratch .. "../lines", table.concat(lines, "\n") .. "\n")
local function sorted(offered)
    local words = {}
    for word in offered:gmatch("[^|]+") do words[#words + 1] = word end
    table.sort(words)
    return table.concat(words, "|")
end
local pipe = io.popen(("cd %s && PATH=%sbin:$PATH bash %s/tests/share/bash-completion/"
    .. "complete.bash %s <../lines 2>&1"):format(scratch, scratch, root, completion))
for _, case in ipairs(cases) do
    testing.equal(sorted(pipe:read() or "nothing"), sorted(case[2]), case[1])
end
testing.equal(pipe:read(), nil, "more output")
testing.equal(testing.read(scratch .. "hit"), nil, "something was run")
testing.finish()
