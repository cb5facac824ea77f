---@meta vxa
-- The module vxa for editors. docs/lua-vxa.md describes it in full.
--
-- A function that fails returns nil, a message and a number: an errno value if it is positive, a
-- status of the driver library if it is negative.

---@class vxa
---@field version string
local vxa = {}

-- ---- documents ---------------------------------------------------------------------------

---@alias vxa.Value boolean|number|string

---@class vxa.Event
---@field id integer
---@field text string
---@field time number seconds since the epoch

---The host's document: keys with values, and events that native code writes.
---@class SLB.Dom
local Document = {}

---Returns a document in a directory, which is created if missing; without one, in memory.
---@param dir? string
---@return SLB.Dom? document
---@return string? message
---@return integer? number
function vxa.Dom(dir) end

---Returns the value of a key, nil if there is none.
---@param key string
---@return vxa.Value? value
---@return string? message if the file has a list or an object there
---@return integer? number
function Document:get(key) end

---Sets a key; nil removes it.
---@param key string
---@param value? vxa.Value
---@return true? stored if not, the value is kept in memory and stored with the next call
---@return string? message
---@return integer? number
function Document:set(key, value) end

---Returns the events, oldest first.
---@return vxa.Event[]? events
---@return integer|string unreadable lines in the file that are not events; or the message
---@return integer? number
function Document:events() end

---Closes the document.
---@return true? stored whether everything is
---@return string? message
---@return integer? number
function Document:close() end

-- ---- driver handles ----------------------------------------------------------------------

---@class vxa.DriverFailures
---@field call string such as "vxi_get_stats"
---@field count integer in this process

---@class vxa.DriverFailure
---@field call string such as "vxi_get_stats"
---@field status integer what it returned
---@field message string

---@class vxa.Capability
---@field name string
---@field available boolean
---@field detail string where it comes from, or why there is none

---A flow that the driver lists.
---@class vxa.Connection
---@field protocol "udp"|"tcp"
---@field family 4|6
---@field src string address
---@field dst string address
---@field sport integer
---@field dport integer
---@field state? vxa.TcpState TCP only
---@field flags integer 1 reply seen, 2 assured, 4/8 SNAT/DNAT, 16 offloaded, 32 counters, 64 socket
---@field timeout number seconds until the kernel forgets it
---@field mark integer
---@field bytes_forward? number with flag 32
---@field bytes_backward? number with flag 32
---@field packets_forward? number with flag 32
---@field packets_backward? number with flag 32

---@alias vxa.TcpState
---| "SYN_SENT"
---| "SYN_RECV"
---| "ESTABLISHED"
---| "FIN_WAIT"
---| "CLOSE_WAIT"
---| "LAST_ACK"
---| "TIME_WAIT"
---| "CLOSE"
---| "SYN_SENT2"
---| "NONE"
---| "UNKNOWN"

---An open driver handle.
---@class vxi_handle_t
local Handle = {}

---Opens the driver through the engine in use.
---@return vxi_handle_t? handle
---@return string? message
---@return integer? number
function vxa.open() end

---Returns how often each function of the driver interface has failed in this process.
---@return vxa.DriverFailures[] rows
function vxa.driver_failures() end

---Closes the handle; harmless when called again. Other methods then raise an error.
function Handle:close() end

---Returns whether the driver answers.
---@return boolean available
function Handle:available() end

---Returns the message of the last failed call, "" if none has failed.
---@return string message
function Handle:error() end

---Returns the latest failed calls on this handle, at most 100, oldest first.
---@return vxa.DriverFailure[] rows
---@return integer older how many are no longer kept
function Handle:failures() end

---Returns the current flows.
---@return vxa.Connection[]? rows
---@return integer|string existing how many flows exist; or the message
---@return integer? number
function Handle:connections() end

---Sets a variable of the driver, such as 62: 1 starts rule profiling.
---@param number integer
---@param value integer
---@return true? set
---@return string? message
---@return integer? number
function Handle:set_variable(number, value) end

---Returns what the engine delivers on this machine.
---@return vxa.Capability[]? rows
---@return string? message
---@return integer? number
function Handle:capabilities() end

-- ---- archives ----------------------------------------------------------------------------

---@class vxa.AddedEntry
---@field name string
---@field bytes integer uncompressed
---@field sha256 string hexadecimal digits
---@field seconds number it took
---@field ok boolean whether it is complete

---@class vxa.ArchiveEntry
---@field name string
---@field bytes integer uncompressed, as declared
---@field packed_bytes integer
---@field text boolean whether its writer marked it as text

---An archive being written.
---@class SLB.wx.ZipOutputStream
local Archive = {}

---Returns a new archive at a path, or in a file from vxa.temporary.
---@param path string|vxa.File
---@return SLB.wx.ZipOutputStream? archive
---@return string? message
---@return integer? number
function vxa.ZipOutputStream(path) end

---Adds an entry.
---@param name string a relative path
---@param text string any bytes
---@return true? added
---@return string? message
---@return integer? number
function Archive:add(name, text) end

---Closes the archive.
---@return true? complete whether everything is on the disk
---@return string? message
---@return integer? number
function Archive:close() end

---Returns the entries that were added, failed ones included.
---@return vxa.AddedEntry[] entries
function Archive:entries() end

---A file that is to become its path once it is complete.
---@class vxa.File
local File = {}

---Returns such a file, accessible by its owner only.
---@param path string
---@return vxa.File? file
---@return string? message
---@return integer? number
function vxa.temporary(path) end

---Appends bytes.
---@param bytes string
---@return true? written
---@return string? message
---@return integer? number
function File:write(bytes) end

---Flushes the file to the disk and names it; closes it.
---@param replace? boolean true: in place of a regular file of that name
---@return true? published
---@return string? message
---@return integer? number
function File:publish(replace) end

---Closes the file; removes it if it was not published.
function File:close() end

---Lists the entries of a zip archive.
---@param path string|vxa.File
---@return vxa.ArchiveEntry[]? entries
---@return string? message
---@return integer? number
function vxa.zip_entries(path) end

---Returns the bytes of the first entry of that name.
---@param path string
---@param name string
---@param most_bytes? integer default and maximum: 256 MiB
---@return string? bytes
---@return string? message
---@return integer? number
function vxa.zip_read(path, name, most_bytes) end

---Goes through an archive once.
---@class vxa.ZipReader
local ZipReader = {}

---Returns a reader.
---@param path string
---@return vxa.ZipReader? reader
---@return string? message
---@return integer? number
function vxa.zip_reader(path) end

---Returns the next entry, false after the last.
---@return vxa.ArchiveEntry|false|nil entry
---@return string? message
---@return integer? number
function ZipReader:next() end

---Returns the SHA-256 of the entry's bytes. Call it once per entry.
---@return string? digits
---@return string? message
---@return integer? number
function ZipReader:sha256() end

---Closes the reader. Other methods then raise an error.
function ZipReader:close() end

-- ---- files that grow ---------------------------------------------------------------------

---A file to which whole lines are appended, by one process at a time.
---@class vxa.AppendFile
local AppendFile = {}

---Opens such a file; creates it if missing.
---@param path string
---@return vxa.AppendFile? file
---@return string? message
---@return integer? number
function vxa.append_file(path) end

---Returns the first bytes.
---@param most_bytes integer
---@return string? bytes
---@return string? message
---@return integer? number
function AppendFile:head(most_bytes) end

---Removes what follows the last line feed.
---@return integer? bytes how many were removed
---@return string? message
---@return integer? number
function AppendFile:cut_partial_line() end

---Appends all bytes or nothing.
---@param bytes string
---@return true? written
---@return string? message
---@return integer? number
function AppendFile:write(bytes) end

---Returns once everything written is on the disk.
---@return true? flushed
---@return string? message
---@return integer? number
function AppendFile:sync() end

---Returns the size.
---@return integer? bytes
---@return string? message
---@return integer? number
function AppendFile:size() end

---Returns whether the path still leads to this file.
---@return boolean has_name
function AppendFile:has_name() end

---Renames the file to its path and the suffix, in place of a file of that name.
---@param suffix string without a slash
---@return true? renamed
---@return string? message
---@return integer? number
function AppendFile:rename(suffix) end

---Closes the file.
function AppendFile:close() end

---Returns whether a process has the file open in this way.
---@param path string
---@return boolean? appended
---@return string? message
---@return integer? number
function vxa.is_appended_to(path) end

---A file that grows up to a size and is then renamed; older ones are kept.
---@class vxa.RotatedFile
local RotatedFile = {}

---Opens such a file.
---@param path string
---@param head string with what a file that has content must begin
---@param most_bytes integer 0: never renamed
---@param kept integer how many older files
---@param compressed boolean whether older files are
---@return vxa.RotatedFile? file
---@return string? message
---@return integer? number
function vxa.rotated_file(path, head, most_bytes, kept, compressed) end

---Appends all bytes or nothing.
---@param bytes string
---@return true? written
---@return string? message why not; or, if they were written, why the file was not renamed before
---@return integer? number
function RotatedFile:write(bytes) end

---Compresses at most 4 MiB of the newest older file.
---@return boolean? more whether there is more to compress
---@return string? message
---@return integer? number
function RotatedFile:compress() end

---Returns once everything written is on the disk.
---@return true? flushed
---@return string? message
---@return integer? number
function RotatedFile:sync() end

---Closes the file.
function RotatedFile:close() end

-- ---- records -----------------------------------------------------------------------------

---@class vxa.Period
---@field from number seconds since the epoch
---@field to number seconds since the epoch

---@class vxa.ChartLines
---@field least number
---@field greatest number
---@field lines string lines "seconds lowest mean highest"

---The thresholds by metric, and from when they were in force.
---@class vxa.ChartPolicy
---@field from number seconds since the epoch
---@field [filter.MetricName] number

---@class vxa.ChartResult: vxa.Period
---@field rows integer
---@field heading string the line that describes the run
---@field entries integer into fail-open
---@field fail_open_s number
---@field counted_s number without gaps and the times between runs
---@field fail_open vxa.Period[]
---@field policies vxa.ChartPolicy[]
---@field metrics table<filter.MetricName, vxa.ChartLines>

---Reads a record for a picture.
---@class vxa.Chart
local Chart = {}

---Opens a record for a picture.
---@param path string
---@param policy? string JSON; decides about fail-open instead of the recorded states
---@param since? number seconds since the epoch
---@param until_? number seconds since the epoch
---@return vxa.Chart? chart
---@return string? message
---@return integer? number
function vxa.chart(path, policy, since, until_) end

---Reads on. Call it until it returns 1.
---@return number? share from 0 to 1
---@return string? message
---@return integer? number
function Chart:read() end

---Returns what the picture shows.
---@return vxa.ChartResult result
function Chart:result() end

---A metric beyond its threshold.
---@class vxa.Cause
---@field name filter.MetricName
---@field value number
---@field threshold number

---A time in fail-open.
---@class vxa.Stretch
---@field entered number seconds since the epoch
---@field left? number seconds since the epoch; not there if it has not ended
---@field lasted number seconds
---@field restarted? boolean whether it ended with its run
---@field over vxa.Cause[]

---@class vxa.Outcome
---@field entries integer into fail-open
---@field first_entries integer in the first cycles
---@field held integer cycles
---@field enforced number seconds
---@field fail_open number seconds
---@field longest number seconds
---@field causes table<filter.MetricName, integer> entries
---@field stretches vxa.Stretch[] at most 1000
---@field monitoring? boolean of a policy

---@class vxa.RecordSummary
---@field cycles integer
---@field measured integer
---@field disabled integer
---@field failed integer
---@field starts integer
---@field gaps integer
---@field port integer
---@field counted number seconds without gaps
---@field first number seconds since the epoch
---@field last number seconds since the epoch
---@field interval number seconds
---@field sampled number seconds that were monitored
---@field missing table<filter.MetricName, integer> cycles
---@field heading string
---@field policy string the last one, JSON

---@class vxa.ReplayResult: vxa.RecordSummary
---@field recorded vxa.Outcome
---@field outcomes vxa.Outcome[] one for each policy

---Replays a record with other policies.
---@class vxa.Replay
local Replay = {}

---Opens a record to replay it.
---@param path string
---@param policies table<string, number>[] settings by policy key
---@param first_cycles? integer
---@return vxa.Replay? replay
---@return string? message
---@return integer? number
function vxa.replay(path, policies, first_cycles) end

---Reads on. Call it until it returns 1.
---@return number? share from 0 to 1
---@return string? message
---@return integer? number
function Replay:read() end

---Returns what the record has and what the policies would have done.
---@return vxa.ReplayResult result
function Replay:result() end

---@class vxa.TunedMetric
---@field count integer values
---@field first_half_count integer values
---@field sampled number seconds that the values stand for
---@field quantiles number[] 50, 99, 99.9 and 100 % of the values are not worse
---@field tightest? number the threshold found
---@field loosest? number the worst value of the first half

---@class vxa.TunerResult: vxa.RecordSummary
---@field first_half vxa.RecordSummary
---@field allowed integer entries allowed in the first half
---@field minimum_minutes integer minimum duration of fail-open
---@field metrics table<filter.MetricName, vxa.TunedMetric>

---Finds thresholds in a record.
---@class vxa.Tuner
local Tuner = {}

---Opens a record to find thresholds.
---@param path string
---@param entries_per_week number
---@param minutes? integer minimum duration of fail-open
---@return vxa.Tuner? tuner
---@return string? message
---@return integer? number
function vxa.tune(path, entries_per_week, minutes) end

---Works on. Call it until it returns 1.
---@return number? share from 0 to 1
---@return string? message
---@return integer? number
function Tuner:read() end

---Returns what was found.
---@return vxa.TunerResult result
function Tuner:result() end

-- ---- masking packages --------------------------------------------------------------------

---@alias vxa.Format "text"|"statistics"|"blacklist"|"json"|"rules"

---Replaces addresses and names by pseudonyms.
---@class vxa.Redaction
local Redaction = {}

---Returns a redaction.
---@param map? string path of the map to use and keep
---@return vxa.Redaction? redaction
---@return string? message
---@return integer? number
function vxa.redaction(map) end

---Finds the networks in an entry. Call it for each entry before the first copy.
---@param path string
---@param name string
---@param format vxa.Format
---@return true? surveyed
---@return string? message
---@return integer? number
function Redaction:survey(path, name, format) end

---Adds an entry, masked, to another archive.
---@param path string
---@param name string
---@param format vxa.Format
---@param archive SLB.wx.ZipOutputStream
---@return true? added
---@return string? message
---@return integer? number
function Redaction:copy(path, name, format, archive) end

---Returns the masked string.
---@param text string
---@param format vxa.Format
---@return string masked
function Redaction:mask(text, format) end

---Masks the parts of this host name everywhere, even common words.
---@param host string
function Redaction:reserve(host) end

---Writes the map, if there is one.
---@return true? saved
---@return string? message
---@return integer? number
function Redaction:save() end

-- ---- engines -----------------------------------------------------------------------------

---Returns the name of the engine that the next handle uses; with a name, selects it.
---@param name? string
---@return string? engine
---@return string? message
---@return integer? number
function vxa.engine(name) end

---Returns the names of the engines.
---@return string[] names
function vxa.engines() end

---Makes driver calls fail as scripted; without a script, none.
---@param script? string such as "vxi_get_stats=-5"
---@return true? set
---@return string? message
---@return integer? number
function vxa.fault(script) end

---Replaces the simulated machine.
---@param settings? string such as "scenario=busy:10/overloaded"
---@return true? set
---@return string? message
---@return integer? number
function vxa.simulate(settings) end

---Checks VXI_ENGINE, VXI_FAULT and VXI_SIM as far as this process uses them.
---@return true? valid
---@return string? message
---@return integer? number
function vxa.check_environment() end

---Advances the simulated machine by a tick.
function vxa.simulated_tick() end

---@class vxa.SimulatedMachine
---@field tick integer
---@field run_queue_length number
---@field cpu_count integer
---@field memory_total_kb integer
---@field memory_free_kb integer

---Returns the state of the simulated machine; nil if the engine is not simulated.
---@return vxa.SimulatedMachine? machine
function vxa.simulated_machine() end

---Makes this process and its children read these numbers from /proc/meminfo. It needs root.
---@param total_kb integer
---@param free_kb integer
---@return true? simulated
---@return string? message
---@return integer? number
function vxa.simulate_memory(total_kb, free_kb) end

---Makes writes beyond this size of a file fail with "File too large".
---@param bytes? integer nil: the limit of before
---@return true? limited
---@return string? message
---@return integer? number
function vxa.limit_file_size(bytes) end

---The counters of a port as they were read last.
---@class vxa.Scan
---@field reads integer successful reads of this process
---@field port integer
---@field outbound boolean
---@field new integer connections
---@field established integer connections
---@field half_open_closed integer connections
---@field bytes_forward integer
---@field bytes_backward integer

---Returns the latest counters of a port; nil before the first read.
---@return vxa.Scan? scan
function vxa.latest_scan() end

-- ---- logs --------------------------------------------------------------------------------

---@class vxa.LogRecord: filter.LogRecord
---@field time number seconds since the epoch
---@field level? "error"|"warning"|"message"|"info"|"debug" of the general log
---@field file? string of a trace
---@field line? integer of a trace
---@field ["function"]? string of a trace

---Switches the trace categories that match a pattern.
---@param pattern string "*" matches any characters, "?" any one
---@param on boolean
function vxa.trace(pattern, on) end

---Switches status lines and debug messages.
---@param on boolean
function vxa.verbose(on) end

---Appends every record to a file from now on; without a path, writes to standard error again.
---@param path? string
---@return true? open
---@return string? message
---@return integer? number
function vxa.log_to(path) end

---Keeps records instead of writing them to standard error.
---@param on boolean
function vxa.capture(on) end

---Returns the records kept, and forgets them.
---@return vxa.LogRecord[] records
---@return integer dropped how many older ones were
function vxa.captured() end

-- ---- time and signals --------------------------------------------------------------------

---Returns seconds on a monotonic clock.
---@return number seconds
function vxa.clock() end

---Returns seconds since the epoch, with fractions.
---@return number seconds
function vxa.time() end

---Waits.
---@param seconds number
---@return boolean passed false if a signal ended it
function vxa.sleep(seconds) end

---From now on signals that end a process only set what interrupted() returns.
function vxa.catch_signals() end

---From now on SIGHUP only sets what reload_asked() returns.
function vxa.reload_on_hangup() end

---Returns whether a SIGHUP has arrived since the last call.
---@return boolean asked
function vxa.reload_asked() end

---Returns the name of the latest signal caught.
---@return "SIGINT"|"SIGTERM"|"SIGHUP"|"SIGQUIT"|false signal
function vxa.interrupted() end

-- ---- commands ----------------------------------------------------------------------------

---Runs a program to its end, without a shell.
---@param arguments string[] the first is its name
---@param input string
---@param file vxa.File gets its output
---@return true? succeeded
---@return string? message
---@return integer? number 2 if there is no such program
function vxa.run_program(arguments, input, file) end

---@class vxa.ProcessResult
---@field seconds number how long it ran
---@field status? integer exit status
---@field signal? string name of the signal that ended it
---@field ended? "limit"|"stopped"|"cannot be killed" if it was ended here

---A running shell command.
---@class vxa.Process
local Process = {}

---Starts a shell command.
---@param command string
---@param input string
---@param limit number seconds after which it is ended
---@return vxa.Process? process
---@return string? message
---@return integer? number
function vxa.start_process(command, input, limit) end

---Returns what became of the command; nil if it still runs after that time.
---@param seconds? number default: 0
---@return vxa.ProcessResult? result
function Process:wait(seconds) end

---Ends the command; does not wait.
function Process:stop() end

---Ends the command and waits until it is gone.
function Process:close() end

-- ---- system ------------------------------------------------------------------------------

---Sets a variable of the environment.
---@param name string
---@param value? string nil removes it
function vxa.setenv(name, value) end

---Makes a directory and its parents.
---@param path string
---@return true? exists
---@return string? message
---@return integer? number
function vxa.mkdir(path) end

---Returns whether both are names of one file.
---@param path string
---@param other string
---@return boolean? same
---@return string? message
---@return integer? number
function vxa.same_file(path, other) end

---Returns the kind of a file.
---@param path string
---@return "file"|"directory"|"link"|"other"|"none"|nil kind
---@return string? message
---@return integer? number
function vxa.file_kind(path) end

---@class vxa.FileStatus
---@field kind "file"|"directory"|"FIFO"|"socket"|"device"
---@field owner integer user ID
---@field mode integer permission bits

---Returns what a file is and whose; links are followed.
---@param path string
---@return vxa.FileStatus? status
---@return string? message
---@return integer? number
function vxa.file_status(path) end

---Returns the bytes of a regular file.
---@param path string
---@param most_bytes integer
---@return string? bytes
---@return string? message
---@return integer? number
function vxa.read_file(path, most_bytes) end

---Returns the last bytes of a regular file.
---@param path string
---@param most_bytes integer
---@return string? bytes
---@return integer|string skipped the number of bytes in front of them; or the message
---@return integer? number
function vxa.read_tail(path, most_bytes) end

---Makes a path a regular file with these bytes.
---@param path string
---@param bytes string
---@param is_public? boolean true: others can read it
---@return true? replaced
---@return string? message
---@return integer? number
function vxa.replace_file(path, bytes, is_public) end

---Removes a regular file.
---@param path string
---@return true? gone
---@return string? message
---@return integer? number
function vxa.remove_file(path) end

---Parses a line of /etc/vx_filter.conf as the filter module does.
---@param text string
---@param at integer from 1
---@return string line
---@return number? number after its first "="
---@return integer next position of the next line
---@return integer? after_number position in the line after the number
function vxa.conf_line(text, at) end

---Returns whether a descriptor is a terminal.
---@param fd integer
---@return boolean terminal
function vxa.isatty(fd) end

---Returns the width of the terminal on standard output, if it is one.
---@return integer? columns
function vxa.terminal_columns() end

---Returns the effective user ID.
---@return integer uid
function vxa.euid() end

---@class vxa.SystemName
---@field system string
---@field host string
---@field release string
---@field version string
---@field machine string

---Returns what uname(2) does.
---@return vxa.SystemName names
function vxa.uname() end

---@class vxa.Version
---@field name string such as "fc.so"
---@field version? string
---@field build_id? string hexadecimal digits
---@field path string

---Returns what is loaded of "fc.so", "vxa.so", "libvxi.so" and "libvxa_core.so".
---@return vxa.Version[] versions
function vxa.versions() end

---Returns the GNU build ID of a loaded library.
---@param file_name string such as "fc.so"
---@return string? digits nil if it is not loaded or has none
function vxa.build_id(file_name) end

---Parses the JSON value at a position of a text; returns nothing if there is none.
---@param text string
---@param position integer from 1
---@param null any takes the place of a JSON null
---@param object table metatable of objects
---@return integer? next position after the value
---@return any value
function vxa.parse_json(text, position, null, object) end

---Returns the bytes in a form that is safe on a terminal.
---@param bytes string
---@param multiline? boolean true: line feeds and TABs stay
---@return string text
function vxa.printable(bytes, multiline) end

---Returns the SHA-256 of the bytes.
---@param bytes string
---@return string digits 64 hexadecimal ones
function vxa.sha256(bytes) end

---Returns a line for every 16 bytes: offset, hexadecimal numbers, ASCII.
---@param bytes string
---@param offset? integer of the first line
---@return string lines
function vxa.hexdump(bytes, offset) end

return vxa
