---@meta fc
-- The module `fc` for editors: require "fc" fills the global table SLB.filter.

-- ---- objects of the host, which the agent or the module vxa provides ---------------------

---The host's document: keys with values, and events that native code writes.
---@class SLB.Dom

---An archive being written, such as a diagnostic package.
---@class SLB.wx.ZipOutputStream

---An open driver handle.
---@class vxi_handle_t

-- ---- health monitoring -------------------------------------------------------------------

---0 normal, 1 fail-open, 2 not monitoring, 5 no load figures, 6 bad argument, 7 no memory figures
---@alias SLB.filter.Action 0|1|2|5|6|7

---@class SLB.filter.CycleResult
---@field action SLB.filter.Action what to do

---@class SLB.filter.MetricRow
---@field name string such as "rqpct"
---@field value integer truncated
---@field threshold integer truncated; 0 if the metric is off

---Row 7 of GetSysHealthMetrics.
---@class SLB.filter.CpuRow
---@field cpu_count integer processors

---A row of the connection report: the fields of the text that was fed, and these.
---@class SLB.filter.ConnectionRow
---@field count integer how often the observation was fed
---@field flags? integer a sum of bits, each of which is also a field below
---@field pid? integer process ID
---@field dst_port? integer port of the service
---@field tls_version? integer TLS version
---@field cipher? integer code of the cipher suite
---@field container_type? integer kind of the container
---@field protocol? string "tcp" or "udp", as lua/filter.lua feeds it
---@field dst_addr? string address of the service, as lua/filter.lua feeds it
---@field cf_ssl_connection? 0|1 bit 0x1
---@field cf_udp_connection? 0|1 bit 0x2
---@field cf_outbound_connection? 0|1 bit 0x4
---@field cf_rsa_key_imported? 0|1 bit 0x8
---@field cf_qoagent_key_imported? 0|1 bit 0x10
---@field cf_do_dpi? 0|1 bit 0x20
---@field cf_qoagent_key_not_found? 0|1 bit 0x40
---@field cf_qoagent_key_error? 0|1 bit 0x80
---@field cf_start_tls? 0|1 bit 0x100
---@field cf_qoagent_fail_open? 0|1 bit 0x200
---@field cf_qoagent_throttled? 0|1 bit 0x400
---@field cf_qoagent_banned? 0|1 bit 0x800

SLB = { filter = {} }

---Runs a health check cycle: samples the machine and the driver, and judges the six metrics.
---@param dom SLB.Dom gets "vxp.filter.FailOpenUnloadDriver"
---@param state string begins with "Activated" (in fail-open) or "Deactivated"
---@param policy string JSON, or "" for /etc/vx_filter.conf
---@return SLB.filter.CycleResult result
function SLB.filter.CheckSystemHealthMetrics(dom, state, policy) end

---Returns the values of the latest cycle, truncated to integers.
---@return true known
---@return (SLB.filter.MetricRow|SLB.filter.CpuRow)[] rows six metrics, and row 7: the processors
function SLB.filter.GetSysHealthMetrics() end

---Returns whether the latest cycle monitored: false before the first one and after action 2.
---@return boolean enabled
function SLB.filter.GetSysHealthEnabled() end

---Returns the port whose connections are counted.
---@return boolean monitored
---@return integer port 0 if none is
function SLB.filter.GetScanMetricPort() end

-- ---- connection feedback -----------------------------------------------------------------

---Counts an observation of a connection until the next publication.
---@param key string identical observations have the same key
---@param text string lines of name, TAB and value; the first one of a key is kept
---@param count integer is added; 0 stores nothing
function SLB.filter.AddToConnMetrics(key, text, count) end

---Publishes the observations if more than 60 whole seconds have passed since the last time.
function SLB.filter.UpdateConnMetrics() end

---Returns what was published, sorted by key; each row is returned once.
---@return SLB.filter.ConnectionRow[] rows
function SLB.filter.GetConnMetrics() end

-- ---- driver diagnostics ------------------------------------------------------------------

---Reads the driver's tables into an archive; failed driver calls become events of the document.
---@param dom SLB.Dom gets event 1001 for each failed call
---@param handle vxi_handle_t an open one
---@param archive SLB.wx.ZipOutputStream gets up to five entries
---@return true always
function SLB.filter.AddDriverDiagnostics(dom, handle, archive) end

---Connects the driver's messages to the trace category "VXI". Call it for each opened handle.
---@param handle vxi_handle_t
function SLB.filter.setup_tbtrace(handle) end

---Does nothing.
---@return 0 always
function SLB.filter.EnableNativeFirewall() end

---Does nothing.
---@return 0 always
function SLB.filter.DisableNativeFirewall() end
