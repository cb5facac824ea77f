-- The entries that the module adds to a diagnostic package, in its order.
--
-- `content` describes an entry; `capability` is the engine's row about its table. `operation` is
-- the first word of the agent event for a failed driver call, `by` the module's function in its
-- traces. Tables that can fail without an event have the driver's `call` and what is wrong then.
return {
    { name = "vxa_stats.txt", content = "driver statistics", capability = "statistics",
      operation = "GET_STATS", by = "AddDriverStatistics" },
    { name = "vxa_variables.txt", content = "driver variables", capability = "variables",
      operation = "GET_VARIABLE", by = "AddDriverVariables", call = "vxi_get_varv",
      without_event = "the driver does not have all of the variables" },
    { name = "vxa_conn_track.txt", content = "connections", capability = "conntrack",
      operation = "GET_CONN_TRACK", by = "AddDriverConnTrack" },
    { name = "vxa_blacklist.txt", content = "blacklisted addresses", capability = "blacklist",
      operation = "BLACKLIST_ADD", by = "AddDriverBlacklist" },
    { name = "vxa.tpf", content = "rule profile", capability = "rule-profile",
      operation = "vxi_get_profile_stats()", by = "AddDriverRuleStats",
      call = "vxi_get_profile_stats", without_event = "the driver has no rule profile" },
}
