// The capacity-full alarm: a syslog per refused VC-FTN or ILM entry, held
// back by an interval that doubles while refusals keep coming.
#pragma once
#include <cstdint>
#include <sys/time.h>

struct ce_l3vpn_syslog_limit_t {
    struct timeval last;  // time of the last emission
    uint32_t cnt;         // timely emissions since the interval last changed
    uint32_t interval;    // seconds; 0 = never emitted
};

extern ce_l3vpn_syslog_limit_t ce_l3vpn_syslog_vc_ftn_limit;
extern ce_l3vpn_syslog_limit_t ce_l3vpn_syslog_ilm_limit;

// 0 (emitted or held back); 1 unknown owner.
int ce_l3vpn_syslog_cap_full(uint32_t owner);

// The wall clock the limiter reads; null restores gettimeofday (tests inject one).
typedef int (*ce_l3vpn_clock_fn_t)(struct timeval *tv);
void ce_l3vpn_syslog_set_clock(ce_l3vpn_clock_fn_t fn);
// Forgets both limiters (tests).
void ce_l3vpn_syslog_reset(void);
