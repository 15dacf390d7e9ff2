// Start-up of the daemon: single instance, logging, HAM, context, tables,
// redundancy registration, then the event loop.
#pragma once

// The platform context (tq_global_t) that every part of the daemon reads.
extern void *ce_l3vpn_global;

// Takes the pid-file lock and writes the pid; returns the open descriptor, or
// the negative start-up code (-11 open failed, -6 held by another process,
// -1 lock failed otherwise).
int ce_l3vpn_check_running(void);

// The whole start-up; returns the process exit status.
int ce_l3vpn_main(void);
