---@meta health_policy
-- The module health_policy for editors: the settings of a health policy, and a check for mistakes.

---@class health_policy
local health_policy = {}

---@class health_policy.Setting
---@field key string name in a policy, such as "SYS_THR_RUNQ"
---@field conf string name in /etc/vx_filter.conf
---@field max number the largest value
---@field threshold? true in a policy it is an object, {"value": 8}
---@field needs_port? true without a port it disables monitoring

---A mistake, or what is probably not meant.
---@class health_policy.Finding
---@field severity "error"|"warning" error: it is ignored or read in another way than written
---@field message string the sentence after its lead
---@field lead string the beginning of the sentence, or ""
---@field effect string what the module does then, or ""
---@field hint string the reason, or what to write instead, or ""
---@field at? integer its position in the text
---@field line? integer from 1
---@field column? integer from 1, in characters
---@field key? string name of the setting or member
---@field suggestion? string the name that was probably meant
---@field detail? boolean check() leaves it out
---@field wrong_type? boolean check() refuses it unless it is lenient
---@field order? integer

---A list of findings: the first ones, and the number of all.
---@class health_policy.Findings
---@field [integer] health_policy.Finding
---@field error integer how many
---@field warning integer how many
---@field private has_room function
---@field private make_room function
---@field private place function
---@field private add_unknown function
local Findings = {}

---Returns the number of all findings.
---@return integer count
function Findings:count() end

---Adds a finding.
---@param finding table
function Findings:add(finding) end

---Returns the sentences of the findings; "and N more" if some are not in the list.
---@param numbered? boolean after the numbers of their lines
---@return string[] sentences
function Findings:sentences(numbered) end

---All settings.
---@type health_policy.Setting[]
health_policy.settings = {}

---Returns the settings that will be in force, and what the module ignores.
---@param text string the policy, JSON
---@param lenient? boolean a member of the wrong type is a warning, as the module takes it
---@return table<string, number>? settings by key; nil if the policy is not valid
---@return string[]|string report the warnings, or what is wrong
function health_policy.check(text, lenient) end

---Returns what the module reads, even from a text that check() refuses, with every finding.
---@param text string the policy, JSON
---@return table<string, number>? settings by key; nil if the module ignores the whole text
---@return health_policy.Findings findings in the order of the text
---@return table<string, integer>? positions of the settings by key
function health_policy.inspect(text) end

---Returns the setting with this name in a policy.
---@param name string in upper or lower case
---@return health_policy.Setting? setting
function health_policy.find(name) end

---Returns a finding's sentence.
---@param finding health_policy.Finding
---@return string sentence
function health_policy.sentence(finding) end

---Returns an empty list.
---@param detailed? boolean with details, and more of them
---@return health_policy.Findings findings
function health_policy.findings(detailed) end

---Returns whether the module takes a number for the setting.
---@param setting health_policy.Setting
---@param number number
---@return boolean accepted
function health_policy.in_bounds(setting, number) end

---Returns the values that a setting can have.
---@param setting health_policy.Setting
---@return string range such as "above 0 to 200"
function health_policy.range(setting) end

---Returns the reason for which a number is out of bounds, as far as it is not plain.
---@param number number
---@return string? reason
function health_policy.why_out_of_bounds(number) end

---Returns what the module makes of a number within bounds: plain numbers lose their fraction.
---@param setting health_policy.Setting
---@param number number
---@param findings health_policy.Findings gets a finding if it changes
---@param name string for the finding
---@param at? integer position of the finding
---@return number effective
function health_policy.effective(setting, number, findings, name, at) end

return health_policy
