#include "tools/l3vpn_ctl_inproc.h"

#include <event2/event.h>

#include "app/proc/ce_l3vpn_cap.h"
#include "app/proc/ce_l3vpn_err.h"
#include "app/proc/ce_l3vpn_main.h"
#include "app/proc/ce_l3vpn_syslog.h"
#include "app/proc/ce_l3vpn_tbl.h"
#include "app/proc/ce_l3vpn_wake.h"
#include "platform/cap/libs_cap_mem.h"
#include "platform/mom/tq_mom_mem.h"
#include "platform/runtime/tq_global.h"
#include "platform/ssat/ssat.h"
#include "route_table/ss_rt_tbl.h"

const char *const CTL_DAEMON_MODULE = "udp-mpls-l3vpn";

namespace {

tq_mom_client_t *ctl_mom_of(void *ctx) { return static_cast<tq_global_t *>(ctx)->mom; }

// A clock that never moves: with the limiter set as if the alarm had just
// gone out, the capacity alarm never passes it again.
int ctl_still_clock(struct timeval *tv) {
    *tv = timeval{};
    return 0;
}

}  // namespace

void *ctl_inproc_ctx(tq_mom_client_t *mom) {
    return tq_global_init_on(CTL_DAEMON_MODULE, event_base_new(), mom);
}

void ctl_inproc_init(void *ctx) {
    ce_l3vpn_global = ctx;
    ce_l3_table_init(ctx);
    libs_cap_mem_install();
    ce_l3vpn_cap_subscribed = false;
}

int ctl_inproc_wake(void *ctx) {
    int rv = ce_l3vpn_rdnd_awake_cb(tq_global_master(ctx));
    if (rv != 0) return rv;
    mom_mem_dispatch_all(ctl_mom_of(ctx));
    return ce_l3vpn_db_ready.connected ? 0 : -1;
}

int ctl_inproc_ready(void *ctx) {
    libs_cap_mem_fire_event(LIBS_CAP_EVT_GLOBAL_READY);
    mom_mem_dispatch_all(ctl_mom_of(ctx));
    return ce_l3vpn_cap_subscribed ? 0 : -1;
}

void ctl_inproc_quiet(void) {
    ce_l3vpn_set_dbg_level(0);
    ss_rt_tbl_ctl.dbg_level = 0;  // the table library logs on standard output
    ce_l3vpn_syslog_set_clock(ctl_still_clock);
    for (ce_l3vpn_syslog_limit_t *l : {&ce_l3vpn_syslog_vc_ftn_limit, &ce_l3vpn_syslog_ilm_limit})
        *l = ce_l3vpn_syslog_limit_t{timeval{}, 0, 1};
}

int ctl_inproc_cmd(const std::string &line, std::string &out) {
    return ssat_run_local(CTL_DAEMON_MODULE, line.c_str(), out);
}
