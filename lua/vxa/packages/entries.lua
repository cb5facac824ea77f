-- The entries of a diagnostic package.
--
-- Those with a `call` are added by AddDriverDiagnostics, in this order. `call` is the driver call
-- that reads the table, `capability` the engine's row about it. `otherwise` is why the entry is
-- missing or empty if no call failed and the engine has the capability.
return {
    { name = "vxa_stats.txt", content = "driver statistics", call = "vxi_get_stats",
      capability = "statistics",
      otherwise = "out of memory, or the driver's record has an unknown layout" },
    { name = "vxa_variables.txt", content = "driver variables", call = "vxi_get_varv",
      capability = "variables", otherwise = "the driver does not have all of the variables" },
    { name = "vxa_conn_track.txt", content = "connections", call = "vxi_get_conntrack",
      capability = "conntrack", otherwise = "the driver has no connections" },
    { name = "vxa_blacklist.txt", content = "blacklisted addresses", call = "vxi_get_blacklist",
      capability = "blacklist", otherwise = "out of memory" },
    { name = "vxa.tpf", content = "rule profile", call = "vxi_get_profile_stats",
      capability = "rule-profile", otherwise = "the driver has no rule profile" },
    { name = "vxa_conn_states.txt", content = "sockets by state" },
    { name = "state/transitions.jsonl", content = "transitions of fail-open" },
    { name = "state/events.jsonl", content = "agent events" },
    { name = "diag.log", content = "how the package was made" },
    { name = "manifest.json", content = "what the package is and lacks" },
}
