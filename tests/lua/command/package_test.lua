-- vxa diag, vxa show and vxa connections from outside, on the simulated engine with
-- scripted faults. Runs in the sandbox: it mounts a small disk.

local cases = require "cases"
local json = require "dkjson"
local outside = require "outside"
local testing = require "testing"

local shell, vxa, match_in_order = outside.shell, outside.vxa, outside.match_in_order

local function files(folder)
    return (shell(("cd %s && ls -A -I '*.lua' -I nproc -I uptime %s")
        :format(outside.SCRATCH, folder or ".")))
end

-- Names and bytes of the package's entries, as another zip reader has them.
local function unzip(name)
    local path = outside.SCRATCH .. "/" .. name
    local _, status = shell(("unzip -tq '%s'"):format(path))
    local entries = {}
    for entry in shell(("unzip -Z1 '%s' 2>/dev/null"):format(path)):gmatch("[^\n]+") do
        entries[entry] = shell(("unzip -p '%s' '%s'"):format(path, entry))
    end
    return entries, status
end

-- ---- what goes into a package -----------------------------------------------------------

local ALL = { "vxa_stats.txt", "vxa_variables.txt", "vxa_conn_track.txt", "vxa_blacklist.txt",
              "vxa.tpf" }

-- Name, environment, exit status, entries that are not there or empty, patterns of the
-- output after the table, in order.
local packages = {
    { "everything", "VXI_FAULT=vxi_capabilities=7", 0, {}, { "^p.zip: 5 entries, [%d.]+ kB packed into [%d.]+ kB, in " } },
    { "statistics fail", "VXI_FAULT=vxi_get_stats=-5:disk", 0, { "vxa_stats.txt" },
      { "^missing  vxa_stats.txt  GET_STATS failed with %-5: engine sim: vxi_get_stats: disk\n",
        "1 event in the host document %(%-%-state DIR keeps them%)\n", "p.zip: 4 entries" } },
    { "an unknown variable", "VXI_FAULT=vxi_get_varv=-10017", 0, { "vxa_variables.txt" },
      { "^missing  vxa_variables.txt  engine sim: vxi_get_varv: ", "p.zip: 4 entries" } },
    { "the connections' sections", "VXI_FAULT=vxi_get_conntrack=-5:after=1", 0, {},
      { "^incomplete  vxa_conn_track.txt  GET_CONN_TRACK failed with %-5: .* %(2 times%)\n",
        "2 events" } },
    { "no connection", "VXI_SIM=flows=0", 0, { "vxa_conn_track.txt" },
      { "^missing  vxa_conn_track.txt  the driver knows no connection\np.zip: 4 entries" } },
    { "no profile", "VXI_FAULT=vxi_get_profile_stats=-5:gone", 0, { "vxa.tpf" },
      { "^empty  vxa.tpf  engine sim: vxi_get_profile_stats: gone\np.zip: 5 entries" } },
    { "a profile that fails", "VXI_FAULT=vxi_get_profile_stats=-5:after=1", 0, { "vxa.tpf" },
      { "^empty  vxa.tpf  vxi_get_profile_stats%(%) failed with %-5: ", "1 event" } },
    { "a blacklist that fails", "VXI_FAULT=vxi_get_blacklist=-12", 0, { "vxa_blacklist.txt" },
      { "^missing  vxa_blacklist.txt  BLACKLIST_ADD failed with %-12: ", "1 event" } },
    { "no driver at all", "VXI_FAULT=vxi_driver_available=0,vxi_get_profile_stats=-1", 1, ALL,
      { "^missing  vxa_stats.txt       the driver is not available\n", "vxa_variables",
        "vxa_conn_track", "vxa_blacklist", "\nempty    vxa.tpf ", "p.zip: 1 entry, 0 bytes" } },
}

local function without(list)
    local left = {}
    for _, name in ipairs(ALL) do left[name] = true end
    for _, name in ipairs(list) do left[name] = nil end
    return left
end

local function after_table(out)
    local rest, rows = out:gsub("^vxa [%d.]+, engine sim\nentry +bytes +ms\n", "")
    while rows > 0 do rest, rows = rest:gsub("^vxa[%w_.]+ +%d[^\n]*\n", "") end
    return rest
end

for _, row in ipairs(packages) do
    local name, environment, expected, absent, patterns = table.unpack(row)
    cases.case(name, function()
        local out, status, err = vxa("diag p.zip --force", environment)
        local entries, sound = unzip("p.zip")
        local filled = {}
        for entry, bytes in pairs(entries) do
            if #bytes > 0 then filled[entry] = true end
            cases.matches(out, ("\n%s +%d +%%d+%%.%%d\n"):format(entry:gsub("%p", "%%%0"), #bytes),
                "line of " .. entry)
        end
        cases.equal(status, expected, "exit status (" .. err .. ")")
        cases.equal(sound, 0, "unzip -t")
        cases.equal(filled, without(absent), "entries")
        cases.equal(err, expected == 0 and "" or "vxa: the driver delivered nothing\n", "errors")
        match_in_order(after_table(out), patterns, "standard output")
        cases.equal(files(), "err\np.zip\n", "files")
    end)
end

cases.case("events of earlier packages are not told again", function()
    vxa("diag p.zip --force --state kept", "VXI_FAULT=vxi_get_stats=-5")
    local out = vxa("diag p.zip --force --state kept", "VXI_FAULT=vxi_get_blacklist=-5")
    cases.matches(out, "\n1 event in the host document, kept in kept\n", "standard output")
    cases.equal(out:find("GET_STATS"), nil, "an event of the first")
    cases.equal(select(2, testing.read(outside.SCRATCH .. "/kept/events.jsonl"):gsub("\n", "")), 2,
        "events kept")
    shell("rm -r " .. outside.SCRATCH .. "/kept")
end)

cases.case("profiled rules", function()
    vxa("diag p.zip --force --profile 0.01", "VXI_SIM=rules=2")
    match_in_order(vxa("show p.zip vxa.tpf"), { "^1 table, 1 chain, 2 rules; profiled for 0 ticks",
        "\nhandle  packets  bytes  %+packets  %+bytes  rule\n", "\ninet filter input\n",
        "\n     3        0      0         0       0  tcp dport 1 accept\n" }, "standard output")
end)

cases.case("traces", function()
    local _, _, err = vxa("diag p.zip --force --trace diagnostics")
    match_in_order(err, { "^trace diagnostics AddDriverContent: ", "AddDriverRuleStats" }, "errors")
    cases.equal(err:find("trace filter"), nil, "a category that was not asked for")
end)

-- ---- files ------------------------------------------------------------------------------

local function mount_small()
    local _, status = shell(([[cd %s && mkdir small && mount -t tmpfs -o size=8k none small]])
        :format(outside.SCRATCH))
    assert(status == 0, "no small disk")
end

outside.write("other.zip", "kept as it is")
shell(("cd %s && mkdir folder && ln -s other.zip link && mkfifo pipe"):format(outside.SCRATCH))
mount_small()

-- Arguments, exit status, pattern of the one line on standard error, scripted fault.
local refused = {
    { "diag a.zip", 1, "the driver cannot be opened: ", "vxi_open=-13" },
    { "diag a.zip --profile 1", 1, "the rules cannot be profiled: ", "vxi_set_var=-1" },
    { "diag ''", 2, "the package has an empty name" },
    { "diag a.zip --profile 0", 2, "%-%-profile must be seconds above 0" },
    { "diag other.zip", 2, "other.zip is there already; %-%-force replaces it" },
    { "diag folder --force", 2, "folder is a directory: it is not replaced" },
    { "diag link --force", 2, "link is a symbolic link: it is not replaced" },
    { "diag pipe --force", 2, "pipe is not a regular file: it is not replaced" },
    { "diag none/a.zip", 1, "cannot write none/a.zip: none: No such file" },
    { "diag other.zip/a.zip", 1, "cannot write other.zip/a.zip: Not a directory" },
    { "diag small/a.zip", 1, "cannot write small/a.zip: No space left on device" },
    { "diag a.zip --state other.zip", 1, "other.zip" },
    { "show", 2, "missing argument 'OUT.zip'" },
    { "show --raw p.zip", 2, "%-%-raw needs an entry" },
    { "show none.zip", 1, "cannot read none.zip: No such file" },
    { "show other.zip", 1, "other.zip: no zip archive, or a part of one" },
    { "show folder", 1, "folder is not a file" },
    { "show p.zip vxa_none.txt", 1, "p.zip: has no entry vxa_none.txt" },
    { "show p.zip >/dev/full", 1, "cannot write to standard output: No space" },
    { "connections --policy x", 2, "unknown option '%-%-policy'" },
}

local before = files()
for _, row in ipairs(refused) do
    cases.case("vxa " .. row[1], function()
        local out, status, err = vxa(row[1], "VXI_SIM=flows=3000 VXI_FAULT=" .. (row[4] or ""))
        cases.equal(status, row[2], "exit status (" .. err .. ")")
        cases.matches(err, "^vxa: [^\n]*" .. row[3] .. "[^\n]*\n$", "standard error")
        cases.equal(out, "", "standard output")
        cases.equal(files(), before, "files")
        cases.equal(files("small"), "", "files on the small disk")
    end)
end

-- The signal comes right behind the module's call, while the package is unfinished.
for _, signal in ipairs { "TERM", "INT" } do
    cases.case("ended by SIG" .. signal, function()
        local out, status, err = vxa("diag a.zip", "", ([[
            local load = require
            function require(name)
                local loaded = load(name)
                if name ~= "fc" then return loaded end
                local add = SLB.filter.AddDriverDiagnostics
                function SLB.filter.AddDriverDiagnostics(...)
                    io.popen("env -u LD_PRELOAD kill -%s $PPID"):close()
                    return add(...)
                end
                return loaded
            end]]):format(signal))
        cases.equal({ status, out, files() }, { 1, "", before }, "exit status, output and files")
        cases.equal(err, ("vxa: ended by SIG%s: no package was made\n"):format(signal), "errors")
    end)
end

cases.case("what is replaced with --force is the file, its owner's alone", function()
    cases.equal(select(2, vxa("diag other.zip --force")), 0, "exit status")
    cases.equal(shell("stat -c %a " .. outside.SCRATCH .. "/other.zip"), "600\n", "permissions")
    cases.equal(select(2, unzip("other.zip")), 0, "unzip -t")
end)

cases.case("the example of docs/driver-diagnostics.md", function()
    local text = testing.read(outside.ROOT .. "/docs/driver-diagnostics.md")
    local code = text:match("```lua\n(package.cpath.-)```")
        :gsub("build/release/lib", os.getenv("VXA_LIB"))
        :gsub("/tmp/driver", outside.SCRATCH .. "/q")
    outside.write("example.lua", code)
    match_in_order(shell("cd / && VXI_ENGINE=sim lua5.2 " .. outside.SCRATCH .. "/example.lua 2>&1"),
        { "^true\nvxa_stats.txt\t%d+\n", "vxa.tpf\t%d+\n$" }, "output")
    cases.equal(select(2, unzip("q.zip")), 0, "unzip -t")
end)

-- ---- vxa show -----------------------------------------------------------------------------

cases.case("a package is listed and its entries are shown", function()
    vxa("diag p.zip --force", "VXI_SIM=rules=3")
    local entries = unzip("p.zip")
    match_in_order(vxa("show p.zip"), { "^entry +bytes +packed +kind +content\n",
        "vxa_stats.txt +" .. #entries["vxa_stats.txt"] .. " +%d+  text  driver statistics\n",
        "vxa.tpf +%d+ +%d+  data  rule profile\n", "p.zip: 5 entries, " }, "list")
    cases.equal(vxa("show p.zip vxa_stats.txt"), entries["vxa_stats.txt"], "a text")
    cases.equal(vxa("show p.zip vxa.tpf --raw | cat"), entries["vxa.tpf"], "raw bytes")
    match_in_order(vxa("show p.zip vxa.tpf"), { "^1 table, 1 chain, 3 rules; profiling was off\n",
        "\n     5        0      0  tcp dport 3 accept\n$" }, "the profile")
    vxa("diag p.zip --force", "VXI_FAULT=vxi_get_profile_stats=-1")
    cases.equal(vxa("show p.zip vxa.tpf"), "(vxa.tpf is empty)\n", "an empty entry")
end)

-- ---- vxa connections ------------------------------------------------------------------------

cases.case("connections that were not published yet are told as such", function()
    local out, status, err = vxa("connections --cycles 2 --interval 0.01", "VXI_SIM=flows=100")
    cases.equal({ status, err }, { 0, "" }, "exit status and errors")
    match_in_order(out, { "^vxa [%d.]+, engine sim, flows read every 0.01 s\n",
        "once in 61 seconds: first report at [%d -]-%d%d:%d%d:%d%d%.\n", "  100 flows, 100 new\n",
        "  100 flows, 0 new\n", "  not published yet: 100 new connections to %d services since ",
        "\n count  protocol  direction  destination\n    %d%d  tcp       in         10.0.0.1:443\n",
        "  in         %[2001:db8::1%]:443\n",
        "\n2 samples in .*: 100 new connections, 0 of them reported\n$" },
        "standard output")
end)

-- Each sleep lasts 61 seconds at once. The module cannot be told, so its store is faked.
local JUMP = [[
    local load, passed = require, 0
    local time = os.time
    os.time = function(...) return select("#", ...) > 0 and time(...) or time() + passed end
    function require(name)
        local loaded = load(name)
        if name == "vxa" then
            local clock = loaded.clock
            function loaded.clock() return clock() + passed end
            function loaded.sleep() passed = passed + 61 return true end
        end
        if name == "fc" then
            local fed = {}
            function SLB.filter.AddToConnMetrics(key, text, count)
                fed[#fed + 1] = { key = key, count = count, protocol = key:match("^%S+"),
                                  dst_addr = key:match("^%S+ (%S+)"), dst_port = 443 }
            end
            function SLB.filter.GetConnMetrics() local rows = fed fed = {} return rows end
        end
        return loaded
    end]]

assert(select(2, shell("mount --bind /var/opt/sandbox/bin /usr/local/bin")) == 0)
outside.write("/var/opt/sandbox/nproc.out", "4\n")
outside.write("/var/opt/sandbox/uptime.out", " up 1 day,  load average: 0.5, 0.4, 0.3\n")
outside.write("/var/opt/sandbox/meminfo", "MemTotal: 1000 kB\nMemFree: 375 kB\n")

cases.case("a report comes when it is due, in text and JSON", function()
    local out = vxa("connections --cycles 2 --interval 60", "VXI_SIM=flows=3", JUMP)
    local lines = vxa("connections --cycles 2 --interval 60 --json", "VXI_SIM=flows=3", JUMP)
    local run = vxa("run --cycles 2 --interval 60", "VXI_SIM=flows=9", JUMP)
    match_in_order(out, { "3 flows, 3 new\n", "  report: 3 new connections to 3 services since ",
        "\n     1  tcp ", "Next report at ", "3 flows, 0 new", "3 of them reported\n$" }, "text")
    local records = {}
    for line in lines:gmatch("[^\n]+") do records[#records + 1] = json.decode(line).record end
    cases.equal(table.concat(records, " "),
        "start sample report connection connection connection sample end", "records")
    match_in_order(run, { "normal", "normal", "\n== connections: 9 new connections to 9 services",
        "\n count", "\n        and 4 more\n", "2 cycles" }, "run")
end)

cases.finish()
