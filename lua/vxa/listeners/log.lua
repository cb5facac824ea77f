-- vxa run --log: the JSON records of the run in a file of bounded size.

local console = require "vxa.output.console"
local exit = require "vxa.exit"
local format = require "vxa.output.format"
local option = require "vxa.options"
local run_json = require "vxa.reports.run_json"

local HEAD = '{"record":'  -- how each record begins
local MIB = 1048576
local DEFAULT_SIZE_MIB, DEFAULT_KEPT = 10, 5

local function define(command)
    command:option("--log", "Append the JSON records of the run to this file."):argname("FILE")
        :convert(option.file_name("--log"))
    command:option("--log-size", ("With --log: start a new file when it would exceed this size "
        .. "(default %d; 0: never). Older ones are FILE.1.gz and so on."):format(DEFAULT_SIZE_MIB))
        :argname("MIB"):convert(option.whole("--log-size", 0, 1048576))
    command:option("--log-keep", ("With --log: number of older files to keep (default %d).")
        :format(DEFAULT_KEPT)):argname("N"):convert(option.whole("--log-keep", 0, 1000))
end

local Log = {}
Log.__index = Log

local function new(monitored, options)
    local path = options.log
    if not path then
        local unused = options.log_size and "--log-size" or options.log_keep and "--log-keep"
        if unused then exit.fail(2, "%s needs --log", unused) end
        return nil
    end
    local file, message = monitored.vxa.rotated_file(path, HEAD,
        (options.log_size or DEFAULT_SIZE_MIB) * MIB, options.log_keep or DEFAULT_KEPT, true)
    if not file then exit.fail(2, "%s", message) end
    local self = setmetatable({ messages = monitored.messages, path = path, file = file,
                                lost = 0 }, Log)
    self.report = run_json.new(monitored, options, function(line) self:write(line) end)
    return self
end

function Log:write(line)
    local written, message = self.file:write(line)
    if not written then self.lost = self.lost + 1 end
    if message then self.messages:warn_once(message) end
end

function Log:compress()
    local more, message = self.file:compress()
    if message then self.messages:warn_once(message) end
    return more
end

function Log:start()
    self.report:start()
end

function Log:reloaded(refusal)
    self.report:reloaded(refusal)
end

function Log:cycle(result, errors)
    self.report:cycle(result, errors)
    self:compress()
end

function Log:connections(report)
    self.report:connections(report)
end

-- What is not compressed yet, the next run compresses: a large file must not delay the end.
function Log:finish(totals)
    self.report:finish(totals)
    self:compress()
    self.file:close()
    if self.lost > 0 then
        console.complain(("%s: %s could not be written"):format(self.path,
            format.count(self.lost, "record")))
    end
end

return { define = define, new = new }
