// The daemon in this process on the in-memory MOM: its start-up chain from
// the redundancy wake-up to the end of its first data sync, with capability
// values from the in-memory capability store. l3vpn-ctl verify runs it on a
// copy of the store; the daemon's tests drive it the same way.
#pragma once
#include <string>

struct tq_mom_client_t;

// The daemon's module name: its context, its debug commands and socket.
extern const char *const CTL_DAEMON_MODULE;

// A process context around mom on a loop of its own (nothing runs the loop:
// timers never fire); tq_global_finish frees both.
void *ctl_inproc_ctx(tq_mom_client_t *mom);
// Makes ctx the daemon's context, creates its tables and installs an empty
// in-memory capability store (values: libs_cap_mem_set).
void ctl_inproc_init(void *ctx);
// Redundancy wake-up -> connections -> database-ready set-up. 0 once
// connected, else the wake-up's code (or -1).
int ctl_inproc_wake(void *ctx);
// Capability ready -> subscriptions -> end markers -> data sync. 0 once the
// daemon has subscribed, else -1.
int ctl_inproc_ready(void *ctx);
// Silences the daemon in this process: no log lines, and the capacity alarm
// never reaches the system log.
void ctl_inproc_quiet(void);
// A debug command run in process; its output, or the reason it did not run.
int ctl_inproc_cmd(const std::string &line, std::string &out);
