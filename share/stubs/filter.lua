---@meta filter
-- The module filter for editors: the ready-made filter script.

---@class filter
local filter = {}

---The filter passes everything.
filter.ACTIVATED = "Activated"
---The filter enforces.
filter.DEACTIVATED = "Deactivated"
---Action: judged, and not in fail-open or leaving it now.
filter.NORMAL = 0
---Action: judged, and in fail-open or entering it now.
filter.FAIL_OPEN = 1
---Action: not judged; there are no settings, or a connection threshold without a port.
filter.DISABLED = 2
---Action: not judged; the run-queue length or the number of processors cannot be read.
filter.NO_LOAD = 5
---Action: not judged; the module does not accept the document, the state or the policy.
filter.BAD_ARGUMENT = 6
---Action: not judged; the memory sizes cannot be read.
filter.NO_MEMORY = 7
---A metric is near its threshold above this share of it.
filter.NEAR = 0.8
---It can come near again once it has been below this share.
filter.NO_LONGER_NEAR = 0.7
---Seconds: minimum time between two reports.
filter.PUBLICATION_INTERVAL_S = 61
---Number of distinct keys that the module keeps between two reports.
filter.KEYS_KEPT = 10000
---Bit of an observation's flags.
filter.UDP_CONNECTION = 0x2
---Bit of an observation's flags.
filter.OUTBOUND_CONNECTION = 0x4

---@alias filter.State "Activated"|"Deactivated"
---@alias filter.MetricName "rqpct"|"refusalpct"|"estab"|"scanmb"|"frepct"|"delta_t"

---@class filter.Metric
---@field name filter.MetricName
---@field setting string its setting in a policy
---@field unit string
---@field full_name string in the module's traces
---@field title string
---@field computed? string pattern for the trace of its value
---@field below? true bad when too low
---@field rate? true from the driver's counters of the port
---@field default? number threshold if the setting is unset

---The six metrics in the module's order, also by name.
---@type table<integer|filter.MetricName, filter.Metric>
filter.metrics = {}

-- ---- health monitoring -------------------------------------------------------------------

---A record of the host's logs.
---@class filter.LogRecord
---@field kind "trace"|"log"
---@field message string
---@field category? string of a trace

---@class filter.MonitorOptions
---@field dom SLB.Dom the host's document
---@field policy? string JSON; "" or nil for /etc/vx_filter.conf
---@field settings? table<string, number> in force, if known: the policy is then not checked
---@field enforce? fun(on: boolean, unload_driver: boolean) called before the state changes
---@field records? fun(): filter.LogRecord[] the records since the last cycle
---@field clock? fun(): number seconds since the epoch
---@field observe? boolean true: judge, but never enter fail-open

---A metric in a cycle.
---@class filter.MetricRow
---@field name filter.MetricName
---@field threshold number
---@field enabled boolean
---@field over boolean beyond its threshold
---@field value? number not there if the metric is off or has no earlier value
---@field since? number seconds since the epoch: since when it is over without a break
---@field pressure? number 1 is at the threshold; not there with integer values
---@field few? true too few new connections to judge their percentage
---@field is_tie? boolean equal to the threshold as far as decimals are known

---@class filter.CycleResult
---@field time number seconds since the epoch, when it began
---@field action SLB.filter.Action
---@field text string describes the action
---@field before filter.State state before this cycle
---@field state filter.State state now
---@field measured boolean whether metrics were judged
---@field metrics filter.MetricRow[] six rows if measured, otherwise none
---@field over filter.MetricRow[] those beyond their thresholds
---@field near filter.MetricRow[] those that have come near them in this cycle
---@field transition? "entered"|"left" if this cycle changed the state
---@field causes? filter.MetricRow[] at a transition: why fail-open was entered
---@field lasts_until? number in fail-open: the earliest time of its end, seconds since the epoch
---@field held? true not entered: only rates are over, and the last cycle did not read the counters
---@field would_enter? true not entered because of options.observe
---@field unpublished? string why the document does not have the state
---@field policy_error? string what is wrong with the policy, in its first cycle
---@field policy_warnings? string[] what the module ignores in the policy, in its first cycle
---@field exact? boolean whether the values come from the status line
---@field min_duration_s? number minimum duration of fail-open; if exact
---@field in_fail_open_s? number how long fail-open has lasted; if exact
---@field port? integer the port that the driver counts, 0 for none; if exact

---Decides on fail-open. Keep one per process.
---@class filter.Monitor
---@field state filter.State the state now
---@field private lacks_value function
---@field private judge function
---@field private exact_interval function
---@field private lacks_counters function
---@field private measure function
---@field private history_of function
---@field private note_crossings function
---@field private note_near function
---@field private note_row_near function
---@field private publish function
---@field private change function
---@field private enter function
---@field private decide function
---@field private configured_duration function
---@field private describe_fail_open function
local Monitor = {}

---Sets the policy for the next cycle on.
---@param text? string JSON; "" or nil for /etc/vx_filter.conf
---@param settings? table<string, number> in force, if known: the policy is then not checked
function Monitor:set_policy(text, settings) end

---Runs one cycle.
---@return filter.CycleResult result
function Monitor:cycle() end

---Returns a monitor that enforces. Raises an error that names a wrong option.
---@param options filter.MonitorOptions
---@return filter.Monitor monitor
function filter.new(options) end

---@class filter.StatusFigure
---@field value? number
---@field threshold? number

---@class filter.Status
---@field time_us number microseconds since the epoch
---@field min_duration_s number
---@field in_fail_open_s number
---@field port integer
---@field figures table<filter.MetricName, filter.StatusFigure>

---Parses the module's status line; returns nil for any other line.
---@param text string
---@return filter.Status? status
function filter.parse_status(text) end

-- ---- connection feedback -----------------------------------------------------------------

---@class filter.FeedbackOptions
---@field is_local? fun(address: string): boolean whether it is this machine's
---@field interrupted? fun(): any called during a sample; true ends it

---What was fed between two times, in seconds since the epoch.
---@class filter.Report
---@field rows SLB.filter.ConnectionRow[] most frequent first
---@field observations integer the sum of their counts
---@field refused integer fed, but dropped by the module for lack of room
---@field since number
---@field time number

---Feeds the driver's flows to the module. Keep one per process.
---@class filter.Feedback
---@field private reset function
---@field private compare function
---@field private count function
---@field private feed function
---@field private is_outbound function
local Feedback = {}

---Feeds one observation for each flow that was not in the previous sample.
---@param flows vxa.Connection[] as from handle:connections()
---@return integer? flows nil if options.interrupted ended the sample
---@return integer|string new how many are new, or "interrupted"
---@return integer? number 4 (EINTR) if it was interrupted
function Feedback:sample(flows) end

---Publishes and returns what was fed; nil if that is not due yet.
---@return filter.Report? report
function Feedback:report() end

---Returns the seconds until the next report, 0 if it is due.
---@return number seconds
function Feedback:due() end

---Returns what was fed since the last report.
---@param in_any_order? boolean true: without sorting
---@return filter.Report report
function Feedback:rest(in_any_order) end

---Returns the sums of rest() without its rows.
---@return integer observations
---@return integer refused
function Feedback:pending() end

---Feeds the rows of another process's rest() again.
---@param rows SLB.filter.ConnectionRow[]
function Feedback:restore(rows) end

---Returns a feedback.
---@param options? filter.FeedbackOptions
---@return filter.Feedback feedback
function filter.feedback(options) end

---Returns the key, text and flags to feed for a flow.
---@param flow vxa.Connection
---@param outbound? boolean it was opened from this machine
---@return string key
---@return string text
---@return integer flags
function filter.observation(flow, outbound) end

return filter
