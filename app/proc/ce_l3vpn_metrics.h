// The metrics endpoint: an HTTP listener on the daemon's event loop that
// serves GET /metrics as OpenMetrics text (ce_l3vpn_stats), at the address in
// the environment variable L3VPN_METRICS ("127.0.0.1:9464", "[::1]:9464").
// Unset or empty: off. Only loopback addresses are taken: the figures name
// tables, owners and load, and the listener has no access control of its own.
#pragma once

// 0 when serving or off; -1 when the address is refused or cannot be bound
// (said on standard error; the daemon runs on without metrics).
int ce_l3vpn_metrics_start(void *global);
// Closes the listener (before the loop is freed).
void ce_l3vpn_metrics_stop(void);
